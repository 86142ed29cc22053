#include "DirectoryLock.h"

#include <gmock/gmock.h>

#include <fstream>
#include <optional>
#include <stdexcept>

#include "Child.h"
#include "support/TemporaryDirectory.h"

namespace host {
namespace {

using zav::test::TemporaryDirectory;

using testing::HasSubstr;
using testing::ThrowsMessage;

TEST(ADirectoryLock, MakesTheDirectory) {
  const TemporaryDirectory directory;
  const DirectoryLock lock(directory / "state/of/host");
  EXPECT_TRUE(std::filesystem::is_directory(directory / "state/of/host"));
}

TEST(ADirectoryLock, RefusesASecondOneAsLongAsItLives) {
  const TemporaryDirectory directory;
  std::optional<DirectoryLock> lock(directory.path());
  EXPECT_THAT([&] { DirectoryLock second(directory.path()); },
              ThrowsMessage<std::runtime_error>(HasSubstr("already runs on " + directory.path().string())));
  lock.reset();
  EXPECT_NO_THROW(DirectoryLock second(directory.path()));
}

TEST(ADirectoryLock, IsNotHandedDownToAProgramThatIsStarted) {
  const TemporaryDirectory directory;
  std::optional<DirectoryLock> lock(directory.path());
  Child child({"cat"});
  child.Write("started\n");
  EXPECT_EQ(child.ReadLine(), "started");
  lock.reset();
  EXPECT_NO_THROW(DirectoryLock second(directory.path()));
}

TEST(ADirectoryLock, CannotBeHadOnAFile) {
  const TemporaryDirectory directory;
  std::ofstream(directory / "file") << "text";
  EXPECT_THROW(DirectoryLock(directory / "file"), std::system_error);
}

}  // namespace
}  // namespace host
