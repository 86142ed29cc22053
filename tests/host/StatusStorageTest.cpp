#include "StatusStorage.h"

#include <gmock/gmock.h>
#include <sqlite3.h>

#include <filesystem>
#include <fstream>
#include <limits>

#include "klay/Exception.h"
#include "klay/database/Statement.h"
#include "support/TemporaryDirectory.h"

namespace host {
namespace {

using zav::test::TemporaryDirectory;

class AStatusStorage : public testing::Test {
 protected:
  TemporaryDirectory directory;
  std::string path = directory / "status.db";
};

TEST_F(AStatusStorage, ReadsWhatWasStored) {
  StatusStorage storage(path);
  EXPECT_EQ(storage.store("one", 1), 0);
  EXPECT_EQ(storage.store("least", std::numeric_limits<int>::min()), 0);
  EXPECT_EQ(storage.read("one"), 1);
  EXPECT_EQ(storage.read("least"), std::numeric_limits<int>::min());
}

TEST_F(AStatusStorage, ReadsANameWithoutARowAsMinusOne) {
  StatusStorage storage(path);
  EXPECT_EQ(storage.read("nobody"), -1);
}

TEST_F(AStatusStorage, KeepsTheLastStatusOfAName) {
  StatusStorage storage(path);
  EXPECT_EQ(storage.store("one", 1), 0);
  EXPECT_EQ(storage.store("one", 0), 0);
  EXPECT_EQ(storage.read("one"), 0);
}

TEST_F(AStatusStorage, IsStillThereForTheNextHost) {
  { EXPECT_EQ(StatusStorage(path).store("it's \"one\"", 1), 0); }
  EXPECT_EQ(StatusStorage(path).read("it's \"one\""), 1);
}

TEST_F(AStatusStorage, IsTheBackendAsLongAsItLives) {
  {
    StatusStorage storage(path);
    EXPECT_EQ(PolicyStorage::backend, &storage);
  }
  EXPECT_EQ(PolicyStorage::backend, nullptr);
}

TEST_F(AStatusStorage, StartsAnewWhenItsFileIsDamaged) {
  std::ofstream(path) << std::string(4096, 'x');
  StatusStorage storage(path);
  EXPECT_EQ(storage.read("one"), -1);
  EXPECT_EQ(storage.store("one", 1), 0);
  EXPECT_TRUE(std::filesystem::exists(path + ".damaged"));
}

TEST_F(AStatusStorage, CannotBeOpenedWhereThereIsNoDirectory) {
  EXPECT_THROW(StatusStorage(directory / "missing/status.db"), klay::Exception);
  EXPECT_EQ(PolicyStorage::backend, nullptr);
}

TEST_F(AStatusStorage, KeepsTheEarlierStatusWhenAWriteFails) {
  StatusStorage storage(path);
  EXPECT_EQ(storage.store("one", 1), 0);
  const klay::database::Connection other(path, SQLITE_OPEN_READWRITE, false);
  klay::database::Statement(other, "CREATE TRIGGER full BEFORE INSERT ON status BEGIN SELECT RAISE(ABORT, 'full'); END")
      .exec();
  EXPECT_THROW(storage.store("one", 0), klay::Exception);
  EXPECT_EQ(storage.read("one"), 1);
}

}  // namespace
}  // namespace host
