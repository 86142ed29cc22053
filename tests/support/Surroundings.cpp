#include "support/Surroundings.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>

namespace zav::test {
namespace {

[[noreturn]] void Fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

std::string SizeOption(unsigned size) {
  return "size=" + std::to_string(size);
}

bool HasTheMachinesOwnDirectories() {
  const char* root = std::getenv("DEVICE_ROOT");
  return root != nullptr && std::string(root) == "real";
}

struct Grouping : std::numpunct<char> {
  char do_thousands_sep() const override { return '.'; }
  std::string do_grouping() const override { return "\3"; }
};

using Capabilities = std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3>;

Capabilities OwnCapabilities() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  Capabilities own{};
  if (syscall(SYS_capget, &header, own.data()) != 0) Fail("capget");
  return own;
}

std::array<std::uint32_t, 2> EffectiveCapabilities() {
  const Capabilities own = OwnCapabilities();
  return {own[0].effective, own[1].effective};
}

void SetEffectiveCapabilities(const std::array<std::uint32_t, 2>& effective) {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  Capabilities own = OwnCapabilities();
  for (size_t i = 0; i < own.size(); ++i) own[i].effective = effective[i];
  if (syscall(SYS_capset, &header, own.data()) != 0) Fail("capset");
}

}  // namespace

ScratchDirectory::ScratchDirectory() : path("/tmp/scratch-XXXXXX") {
  if (mkdtemp(path.data()) == nullptr) Fail(path);
}

ScratchDirectory::~ScratchDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path, ignored);
}

SmallDisk::SmallDisk(const std::string& directory, unsigned size) : path(directory) {
  mounted = mount("none", path.c_str(), "tmpfs", 0, SizeOption(size).c_str()) == 0;
  if (!mounted && !(errno == EPERM && HasTheMachinesOwnDirectories())) Fail("mount on " + path);
}

SmallDisk::~SmallDisk() {
  if (mounted) umount2(path.c_str(), MNT_DETACH);
}

void SmallDisk::MakeReadOnly() {
  if (mount("none", path.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr) != 0) Fail("remount of " + path);
}

void SmallDisk::Resize(unsigned size) {
  if (mount("none", path.c_str(), nullptr, MS_REMOUNT, SizeOption(size).c_str()) != 0) Fail("remount of " + path);
}

FixedFile::FixedFile(const std::string& file) : path(file) {
  mounted = mount(path.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) == 0;
  if (!mounted && !(errno == EPERM && HasTheMachinesOwnDirectories())) Fail("mount on " + path);
  constexpr unsigned long kReadOnly = MS_REMOUNT | MS_BIND | MS_RDONLY;
  if (mounted && mount("none", path.c_str(), nullptr, kReadOnly, nullptr) != 0) Fail("remount of " + path);
}

FixedFile::~FixedFile() {
  if (mounted) umount2(path.c_str(), MNT_DETACH);
}

WithoutPrivilege::WithoutPrivilege() {
  previous = EffectiveCapabilities();
  constexpr std::uint32_t kFileRights = (1U << CAP_DAC_OVERRIDE) | (1U << CAP_DAC_READ_SEARCH);
  SetEffectiveCapabilities({previous[0] & ~kFileRights, previous[1]});
}

WithoutPrivilege::~WithoutPrivilege() {
  try {
    SetEffectiveCapabilities(previous);
  } catch (const std::exception& failure) {
    // What came next would run without the rights it needs.
    std::fprintf(stderr, "%s\n", failure.what());
    std::abort();
  }
}

DescriptorLimit::DescriptorLimit(unsigned more) {
  if (getrlimit(RLIMIT_NOFILE, &previous) != 0) Fail("getrlimit");
  rlimit limit = previous;
  limit.rlim_cur = 0;
  for (unsigned unused = 0; unused <= more; ++limit.rlim_cur) {
    if (fcntl(static_cast<int>(limit.rlim_cur), F_GETFD) == -1) ++unused;
  }
  --limit.rlim_cur;
  if (setrlimit(RLIMIT_NOFILE, &limit) != 0) Fail("setrlimit");
}

DescriptorLimit::~DescriptorLimit() {
  setrlimit(RLIMIT_NOFILE, &previous);
}

MemoryLimit::MemoryLimit(std::size_t more) {
  if (getrlimit(RLIMIT_AS, &previous) != 0) Fail("getrlimit");
  std::size_t pages = 0;
  if (!(std::ifstream("/proc/self/statm") >> pages)) Fail("/proc/self/statm");
  rlimit limit = previous;
  limit.rlim_cur = pages * static_cast<std::size_t>(sysconf(_SC_PAGESIZE)) + more;
  if (setrlimit(RLIMIT_AS, &limit) != 0) Fail("setrlimit");
}

MemoryLimit::~MemoryLimit() {
  setrlimit(RLIMIT_AS, &previous);
}

Umask::Umask(mode_t mask) : previous(umask(mask)) {}

Umask::~Umask() {
  umask(previous);
}

GroupingLocale::GroupingLocale() : previous(std::locale::global(std::locale(std::locale::classic(), new Grouping))) {}

GroupingLocale::~GroupingLocale() {
  std::locale::global(previous);
}

UnreadableDirectory::UnreadableDirectory() : child(fork()) {
  if (child == -1) Fail("fork");
  if (child == 0) _exit(0);
  siginfo_t ended{};
  while (waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT) == -1 && errno == EINTR) {
  }
}

UnreadableDirectory::~UnreadableDirectory() {
  while (waitpid(child, nullptr, 0) == -1 && errno == EINTR) {
  }
}

unsigned PermissionsOf(const std::string& path) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0) Fail(path);
  return info.st_mode & 07777;
}

}  // namespace zav::test
