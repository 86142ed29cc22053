#include "doctor/DeviceFiles.h"

#include <fcntl.h>
#include <sqlite3.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <sstream>
#include <stdexcept>

#include "support/Device.h"

namespace zav::client::test {
namespace {

namespace fs = std::filesystem;
using zav::test::ReadFile;
using zav::test::WriteFile;

// As it stands in the databases of devices.
constexpr const char* kTable =
    "CREATE TABLE PYXPlugin (name        TEXT NOT NULL,                                 value       TEXT,              "
    "                            PRIMARY KEY (name) ON CONFLICT REPLACE)";

}  // namespace

Policies SoundPolicies() {
  return {{"Service", R"({"restart_delay":30})"},
          {"State", R"({"logging_state":"enabled","pyx_state":"enabled"})"},
          {"Storage", R"({"0":{"threat":"phishing","timestamp":1700000000,"url":"http://a.example"},)"
                      R"("config":{"max_file_size":10,"max_index":2000,"max_logging_period":3600},)"
                      R"("state":{"count":1,"last_index":0,"phishing":1}})"}};
}

void MakeDatabase(const std::string& path, const Policies& policies) {
  fs::remove(path);
  zav::test::Sql(kTable, path);
  for (const auto& [name, value] : policies) {
    std::unique_ptr<char, decltype(&sqlite3_free)> sql(
        sqlite3_mprintf("INSERT INTO PYXPlugin VALUES (%Q, %Q)", name.c_str(), value.c_str()), sqlite3_free);
    zav::test::Sql(sql.get(), path);
  }
}

DeviceFiles::DeviceFiles() {
  paths.socket = directory_ / "run/.socket";
  paths.storageDirectory = directory_ / "storage";
  options.socket = paths.socket;
  options.timeout = std::chrono::seconds(20);
  fs::create_directory(paths.RunDirectory());
  fs::create_directory(paths.storageDirectory);
  fs::permissions(paths.RunDirectory(), fs::perms(0755));
  fs::permissions(paths.storageDirectory, fs::perms(0700));
  WriteFile(paths.DefaultPolicy(), ReadFile(DEFAULT_POLICY));
  Store(SoundPolicies());
}

Findings DeviceFiles::Examined(Findings (*examine)(const pyxctl::doctor::Seen&)) const {
  return examine(pyxctl::doctor::LookAt(paths, options));
}

Findings DeviceFiles::Examined() const {
  return pyxctl::doctor::ExamineDevice(paths, options);
}

void DeviceFiles::Store(const Policies& policies) const {
  MakeDatabase(paths.Database(), policies);
  WriteFile(paths.Backup(), ReadFile(paths.Database()));
}

std::vector<std::string> NamesBelow(const std::vector<std::string>& directories) {
  std::vector<std::string> names;
  for (const std::string& directory : directories) {
    names.push_back(directory);
    if (!fs::is_directory(fs::symlink_status(directory))) continue;
    for (const auto& each : fs::recursive_directory_iterator(directory)) names.push_back(each.path());
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::vector<std::string> BytesOf(const std::vector<std::string>& names) {
  std::vector<std::string> bytes;
  for (const std::string& name : names) {
    bytes.push_back(fs::is_regular_file(fs::symlink_status(name)) ? ReadFile(name) : "");
  }
  return bytes;
}

std::vector<std::string> TimesOf(const std::vector<std::string>& names) {
  std::vector<std::string> times;
  for (const std::string& name : names) {
    struct stat info {};
    if (::lstat(name.c_str(), &info) != 0) continue;
    std::ostringstream text;
    text << name << ' ' << info.st_ino << ' ' << info.st_mode << ' ' << info.st_nlink << ' ' << info.st_uid << ' '
         << info.st_size << ' ' << info.st_blocks;
    for (const timespec& time : {info.st_atim, info.st_mtim, info.st_ctim}) {
      text << ' ' << time.tv_sec << '.' << time.tv_nsec;
    }
    times.push_back(text.str());
  }
  return times;
}

void AgeAccess(const std::vector<std::string>& names) {
  const timespec times[] = {{1'000'000'000, 0}, {0, UTIME_OMIT}};
  for (const std::string& name : names) ::utimensat(AT_FDCWD, name.c_str(), times, AT_SYMLINK_NOFOLLOW);
}

void ExpectNoChange(const std::vector<std::string>& directories, const std::function<void()>& work) {
  const auto names = NamesBelow(directories);
  const auto bytes = BytesOf(names);
  AgeAccess(names);
  const auto times = TimesOf(names);
  work();
  EXPECT_EQ(TimesOf(names), times);
  EXPECT_EQ(NamesBelow(directories), names);
  EXPECT_EQ(BytesOf(names), bytes);
}

}  // namespace zav::client::test
