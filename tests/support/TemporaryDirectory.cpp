#include "support/TemporaryDirectory.h"

#include <cerrno>
#include <cstdlib>
#include <system_error>

namespace zav::test {

TemporaryDirectory::TemporaryDirectory() {
  std::string name = std::filesystem::temp_directory_path() / "zav-test-XXXXXX";
  if (mkdtemp(name.data()) == nullptr) throw std::system_error(errno, std::generic_category(), name);
  directory = name;
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(directory, ignored);
}

}  // namespace zav::test
