#pragma once

#include <filesystem>
#include <string>

/// A new directory that goes, with what is in it, at the end.
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();

  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  /// The path of something in it.
  std::string operator/(const std::string& name) const { return path / name; }
  const std::filesystem::path& get() const { return path; }

 private:
  std::filesystem::path path;
};
