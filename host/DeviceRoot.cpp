#include "DeviceRoot.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <utility>

namespace host {
namespace {

constexpr const char* kOpt = "/opt";
constexpr const char* kTmp = "/tmp";
constexpr const char* kOptMode = "mode=0755";
constexpr const char* kTmpMode = "mode=1777";

[[noreturn]] void Fail(const std::string& what, int error = errno) {
  throw std::system_error(error, std::generic_category(), what);
}

/// A directory held open by its place, so that it can be mounted elsewhere after its path has been covered.
class HeldDirectory {
 public:
  explicit HeldDirectory(const std::string& path) : file(open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)) {
    if (file == -1) Fail("can't open the directory " + path);
    paths = {std::filesystem::canonical(path), std::filesystem::absolute(path).lexically_normal()};
  }
  HeldDirectory(HeldDirectory&& other) noexcept : file(std::exchange(other.file, -1)), paths(std::move(other.paths)) {}
  HeldDirectory& operator=(HeldDirectory&&) = delete;
  ~HeldDirectory() {
    if (file != -1) close(file);
  }

  /// Mounts it over an existing directory, with what is mounted below it: a user namespace may not look below a mount
  /// that it did not make.
  void MountOver(const std::string& target) const {
    const std::string source = "/proc/self/fd/" + std::to_string(file);
    if (mount(source.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) {
      Fail("can't mount " + paths.front() + " over " + target);
    }
  }

  /// Brings it back under those of its paths that lead elsewhere by now. The real path goes first: a symbolic link on
  /// the given one may lead to it.
  void Restore() const {
    for (const std::string& path : paths) {
      if (IsAt(path)) continue;
      std::filesystem::create_directories(path);
      MountOver(path);
    }
  }

  bool IsAt(const std::string& path) const {
    struct stat here {};
    struct stat there {};
    return fstat(file, &here) == 0 && stat(path.c_str(), &there) == 0 && here.st_dev == there.st_dev &&
           here.st_ino == there.st_ino;
  }

 private:
  int file;
  std::vector<std::string> paths;
};

void WriteFile(const std::string& path, const std::string& text) {
  const int file = open(path.c_str(), O_WRONLY | O_CLOEXEC);
  if (file == -1) Fail("can't open " + path);
  const ssize_t written = write(file, text.data(), text.size());
  const int error = errno;
  close(file);
  if (written != static_cast<ssize_t>(text.size())) Fail("can't write " + path, error);
}

void Unshare() {
  const char* const refused = geteuid() == 0 ? "the system refuses a mount namespace"
                                             : "the system refuses an ordinary user's namespaces; run it as root";
  const std::string user = std::to_string(geteuid());
  const std::string group = std::to_string(getegid());
  if (unshare(CLONE_NEWNS) == 0) return;
  if (errno != EPERM) Fail(refused);

  if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) Fail(refused);
  // The kernel takes a group map from an ordinary user only after setgroups was given up.
  WriteFile("/proc/self/setgroups", "deny");
  WriteFile("/proc/self/uid_map", "0 " + user + " 1");
  WriteFile("/proc/self/gid_map", "0 " + group + " 1");
}

void Cover(const std::string& target, const char* mode, const DeviceRootOptions::Replacement& replacement,
           const HeldDirectory* directory) {
  if (!replacement.wanted) return;
  if (directory != nullptr) return directory->MountOver(target);
  if (mount("tmpfs", target.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, mode) != 0) {
    Fail("can't mount an empty directory over " + target);
  }
}

void RefuseCoveredItself(const DeviceRootOptions& options, const HeldDirectory& kept) {
  for (const auto& [path, replacement] : {std::pair(kOpt, &options.opt), std::pair(kTmp, &options.tmp)}) {
    if (replacement->wanted && kept.IsAt(path)) {
      throw std::runtime_error(std::string("can't keep ") + path + " itself: it is to be replaced");
    }
  }
}

void ReturnTo(const std::string& directory) {
  if (!directory.empty() && chdir(directory.c_str()) == 0) return;
  if (chdir("/") != 0) Fail("can't go to /");
}

}  // namespace

void DeviceRoot::Enter(const DeviceRootOptions& options) {
  std::error_code unknown;
  const std::string directory = std::filesystem::current_path(unknown).string();

  Unshare();
  // Held open only now: a mount of the namespace that was left cannot be mounted in this one.
  std::vector<HeldDirectory> held;
  held.reserve(options.keep.size() + 2);
  for (const std::string& path : options.keep) RefuseCoveredItself(options, held.emplace_back(path));
  const auto hold = [&held](const DeviceRootOptions::Replacement& replacement) -> const HeldDirectory* {
    return replacement.wanted && !replacement.directory.empty() ? &held.emplace_back(replacement.directory) : nullptr;
  };
  const HeldDirectory* opt = hold(options.opt);
  const HeldDirectory* tmp = hold(options.tmp);

  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) Fail("can't make the mounts private");
  Cover(kOpt, kOptMode, options.opt, opt);
  Cover(kTmp, kTmpMode, options.tmp, tmp);
  for (const HeldDirectory& kept : held) kept.Restore();
  ReturnTo(directory);
}

}  // namespace host
