#include "OddThing.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>
#include <utility>

#include "support/Device.h"

namespace zav::test {
namespace {

namespace fs = std::filesystem;

constexpr uid_t kSomebodyElse = 65534;

/// Where what was there is kept, and where links lead to.
std::string Aside(const std::string& path) {
  return path + ".aside";
}

std::string Target(const std::string& path) {
  return path + ".target";
}

void Check(int result, const std::string& path) {
  if (result != 0) throw std::system_error(errno, std::generic_category(), path);
}

void MakeSocket(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int result = bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
  close(fd);
  Check(result, path);
}

void MakeLink(const std::string& target, const std::string& path) {
  Check(symlink(target.c_str(), path.c_str()), path);
}

std::string Noise() {
  std::string noise(10'000, 'x');
  for (size_t i = 0; i < noise.size(); ++i) noise[i] = static_cast<char>(i * i % 251);
  return noise;
}

void MakeFullDirectory(const std::string& path) {
  fs::create_directory(path);
  WriteFile(path + "/file", "content");
}

void Make(Kind kind, const std::string& path) {
  switch (kind) {
    case Kind::kEmptyFile:
      return WriteFile(path, "");
    case Kind::kNoise:
      return WriteFile(path, Noise());
    case Kind::kDirectory:
      fs::create_directory(path);
      return;
    case Kind::kFullDirectory:
      return MakeFullDirectory(path);
    case Kind::kDanglingLink:
      return MakeLink(Target(path), path);
    case Kind::kLinkToFile:
      WriteFile(Target(path), Noise());
      return MakeLink(Target(path), path);
    case Kind::kLinkToDirectory:
      fs::create_directory(Target(path));
      return MakeLink(Target(path), path);
    case Kind::kLinkToItself:
      return MakeLink(path, path);
    case Kind::kLinkToTheThing:
      return MakeLink(Aside(path), path);
    case Kind::kLinkToDevice:
      return MakeLink("/dev/zero", path);
    case Kind::kLinkToPipe:
      Check(mkfifo(Target(path).c_str(), 0600), path);
      return MakeLink(Target(path), path);
    case Kind::kPipe:
      return Check(mkfifo(path.c_str(), 0600), path);
    case Kind::kSocket:
      return MakeSocket(path);
    case Kind::kDevice:
      return Check(mknod(path.c_str(), S_IFCHR | 0600, makedev(1, 5)), path);
    case Kind::kMissing:
    case Kind::kOtherOwner:
    case Kind::kNoRights:
      return;
  }
}

bool Exists(const std::string& path) {
  return fs::exists(fs::symlink_status(path));
}

void Change(Kind kind, const std::string& path) {
  if (!Exists(path)) WriteFile(path, "");
  if (kind == Kind::kOtherOwner) Check(lchown(path.c_str(), kSomebodyElse, kSomebodyElse), path);
  if (kind == Kind::kNoRights) Check(chmod(path.c_str(), 0), path);
}

void ChangeBack(const std::string& path) {
  struct stat info {};
  if (lstat(path.c_str(), &info) != 0) return;
  Check(lchown(path.c_str(), geteuid(), getegid()), path);
  if (S_ISREG(info.st_mode)) Check(chmod(path.c_str(), 0644), path);
  if (S_ISDIR(info.st_mode)) Check(chmod(path.c_str(), 0755), path);
}

/// What was there, which may have been nothing.
void PutBack(const std::string& path) {
  fs::remove_all(path);
  if (Exists(Aside(path))) fs::rename(Aside(path), path);
}

}  // namespace

std::ostream& operator<<(std::ostream& out, Kind kind) {
  const char* const names[] = {"missing",
                               "an empty file",
                               "a file of noise",
                               "a directory",
                               "a directory with a file in it",
                               "a dangling link",
                               "a link to a file",
                               "a link to a directory",
                               "a link to itself",
                               "a link to the thing itself",
                               "a link to a device",
                               "a link to a named pipe",
                               "a named pipe",
                               "a socket",
                               "a device node",
                               "somebody else's",
                               "without any rights"};
  return out << names[static_cast<int>(kind)];
}

bool IsTheThingItself(Kind kind) {
  return kind == Kind::kLinkToTheThing || ConcernsRights(kind);
}

bool ConcernsRights(Kind kind) {
  return kind == Kind::kOtherOwner || kind == Kind::kNoRights;
}

OddThing::Identity OddThing::IdentityOf(const std::string& path) {
  struct stat info {};
  if (lstat(path.c_str(), &info) != 0) return {};
  return {info.st_dev, info.st_ino};
}

OddThing::OddThing(std::string where, Kind what) : path(std::move(where)), kind(what) {
  if (ConcernsRights(kind)) {
    Change(kind, path);
  } else {
    if (Exists(path)) fs::rename(path, Aside(path));
    Make(kind, path);
  }
  odd = IdentityOf(path);
}

bool OddThing::WasWrittenThrough() const {
  if (kind == Kind::kDanglingLink) return fs::is_regular_file(Target(path));
  return kind == Kind::kLinkToFile && ReadFile(Target(path)) != Noise();
}

bool OddThing::Mend() {
  if (IdentityOf(path) != odd) return false;
  if (WasWrittenThrough()) {
    fs::rename(Target(path), path);
    fs::remove_all(Aside(path));
    return false;
  }
  MendAnyway();
  return true;
}

void OddThing::MendAnyway() {
  if (ConcernsRights(kind)) {
    ChangeBack(path);
  } else {
    PutBack(path);
  }
  CleanUp(path);
}

void OddThing::CleanUp(const std::string& path) {
  if (Exists(Aside(path))) PutBack(path);
  fs::remove_all(Target(path));
}

}  // namespace zav::test
