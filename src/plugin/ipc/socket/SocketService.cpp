#include "ipc/socket/SocketService.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>

#include "common/Descriptor.h"
#include "common/ErrorText.h"
#include "common/GlobalPaths.h"

namespace zav::ipc {

using common::Descriptor;
using common::ErrorText;

namespace {

constexpr int kBacklog = 16;
constexpr mode_t kModeBits = 07777;
constexpr mode_t kEveryUser = 01777;

template <class Address>
auto* Generic(Address* address) {
  return reinterpret_cast<sockaddr*>(address);
}

mode_t ModeForEveryUser(const struct stat& info) {
  return (info.st_mode & kModeBits) | kEveryUser;
}

bool IsBound(int descriptor) {
  sockaddr_un name{};
  socklen_t length = sizeof(name);
  return getsockname(descriptor, Generic(&name), &length) == 0 && length > sizeof(name.sun_family);
}

bool WasShut(int descriptor) {
  pollfd state{descriptor, POLLRDHUP, 0};
  return poll(&state, 1, 0) == 1 && (state.revents & POLLRDHUP) != 0;
}

}  // namespace

SocketService::SocketService() {
  fillAddress();
  unlink(address.sun_path);
}

SocketService::~SocketService() {
  unlink(address.sun_path);
}

bool SocketService::isSpent() const {
  return fd != -1 && (IsBound(fd) || WasShut(fd));
}

void SocketService::retire() {
  // A file that could not be removed when its descriptor went would be found by every bind from then on.
  if (isSpent() || fileIsLeft) fileIsLeft = unlink(address.sun_path) != 0 && errno != ENOENT;
  if (!isSpent()) return;
  close(fd);
  fd = -1;
  fillAddress();
}

bool SocketService::listen() {
  create();
  if (fd == -1) {
    const int error = errno;
    LOG_ERROR(ErrorText{error});
    return false;
  }
  if (fcntl(fd, F_SETFL, O_NONBLOCK) == -1) {
    const int error = errno;
    LOG_ERROR("fcntl ! ", ErrorText{error});
    return false;
  }
  if (bind(fd, Generic(&address), sizeof(address)) != 0) {
    const int error = errno;
    LOG_ERROR("bind failed! ", ErrorText{error});
    return false;
  }
  if (::listen(fd, kBacklog) != 0) {
    const int error = errno;
    LOG_ERROR("listen has failed! ", ErrorText{error});
    return false;
  }
  admitEveryUser();
  LOG_INFO("listening socket : ", fd);
  return true;
}

void SocketService::admitEveryUser() const {
  struct stat info {};
  if (common::isOwnDirectory(common::runPath)) {
    if (stat(address.sun_path, &info) == 0) chmod(address.sun_path, ModeForEveryUser(info));
    return;
  }
  // By descriptor and without following links: others can put a file of somebody else's in the socket's place here, and
  // that must not have its mode changed.
  const Descriptor file(open(address.sun_path, O_PATH | O_NOFOLLOW | O_CLOEXEC));
  if (file.get() == -1 || fstat(file.get(), &info) != 0 || !S_ISSOCK(info.st_mode)) return;
  // Nothing here throws: a listener that nobody serves would keep its clients waiting.
  std::array<char, 32> name{};
  std::snprintf(name.data(), name.size(), "/proc/self/fd/%d", file.get());
  chmod(name.data(), ModeForEveryUser(info));
}

int SocketService::accept() {
  const int client = accept4(fd, Generic(&address), &addressLength, SOCK_CLOEXEC);
  const int error = errno;
  // A client may have bound a name, which stands in the address now: its file must never be taken for ours.
  fillAddress();
  // Zero stands for no socket everywhere here.
  if (client == 0) close(client);
  errno = error;
  return client;
}

}  // namespace zav::ipc
