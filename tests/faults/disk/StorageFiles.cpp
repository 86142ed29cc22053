#include "faults/disk/StorageFiles.h"

#include <algorithm>
#include <filesystem>
#include <stdexcept>

#include "support/Device.h"

namespace zav::test {

Files StorageFiles() {
  Files files;
  for (const auto& entry : std::filesystem::directory_iterator(kStorageDirectory)) {
    if (entry.is_regular_file()) files[entry.path().filename()] = ReadFile(entry.path());
  }
  return files;
}

void PutStorageFiles(const Files& files) {
  for (const auto& entry : std::filesystem::directory_iterator(kStorageDirectory)) {
    std::filesystem::remove_all(entry.path());
  }
  const std::filesystem::path directory = kStorageDirectory;
  for (const auto& [name, content] : files) WriteFile(directory / name, content);
}

std::string Noise(std::mt19937& random, size_t size) {
  std::string noise(size, '\0');
  std::generate(noise.begin(), noise.end(), [&] { return static_cast<char>(random()); });
  return noise;
}

std::string IntegrityOfDatabase() {
  try {
    return Sql("PRAGMA integrity_check");
  } catch (const std::runtime_error& error) {
    return error.what();
  }
}

}  // namespace zav::test
