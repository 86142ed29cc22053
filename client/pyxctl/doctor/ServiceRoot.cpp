#include "doctor/ServiceRoot.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>

namespace zav::pyxctl::doctor {
namespace {

namespace fs = std::filesystem;

/// The process that listens at a socket; 0 where that cannot be told.
pid_t ServerOf(const std::string& socket) {
  sockaddr_un address{};
  if (socket.size() >= sizeof(address.sun_path)) return 0;
  address.sun_family = AF_UNIX;
  socket.copy(static_cast<char*>(address.sun_path), sizeof(address.sun_path) - 1);
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  ucred server{};
  socklen_t size = sizeof(server);
  const bool isKnown = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 &&
                       ::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &server, &size) == 0;
  ::close(fd);
  return isKnown ? server.pid : 0;
}

/// Which files a process sees; empty where this user may not know.
fs::path MountsOf(const std::string& process) {
  std::error_code error;
  return fs::read_symlink("/proc/" + process + "/ns/mnt", error);
}

}  // namespace

std::string RootOfService(const std::string& socket) {
  const pid_t server = ServerOf(socket);
  if (server == 0) return "";
  const std::string process = std::to_string(server);
  const fs::path mounts = MountsOf(process);
  return mounts.empty() || mounts == MountsOf("self") ? "" : "/proc/" + process + "/root";
}

}  // namespace zav::pyxctl::doctor
