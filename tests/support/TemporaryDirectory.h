#pragma once

#include <filesystem>
#include <string>

namespace zav::test {

/// A new directory that goes, with what is in it, at the end.
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  const std::filesystem::path& path() const { return directory; }
  /// The path of something in it.
  std::string operator/(const std::string& name) const { return directory / name; }

 private:
  std::filesystem::path directory;
};

}  // namespace zav::test
