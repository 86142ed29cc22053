#include "Connection.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace bench {
namespace {

constexpr timeval kPatience{60, 0};

[[noreturn]] void Fail(const std::string& what) {
  throw std::runtime_error(what + ": " + std::strerror(errno));
}

sockaddr_un Address(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) throw std::runtime_error(path + " is too long for a socket");
  path.copy(address.sun_path, path.size());
  return address;
}

bool IsShut(int error) {
  return error == EPIPE || error == ECONNRESET;
}

}  // namespace

Connection::Connection(const std::string& path, int type) : fd(socket(AF_UNIX, type | SOCK_CLOEXEC, 0)) {
  if (fd == -1) Fail("socket");
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof(kPatience));
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &kPatience, sizeof(kPatience));
  const sockaddr_un address = Address(path);
  if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) return;
  const int error = errno;
  close(fd);
  errno = error;
  Fail("connect to " + path);
}

Connection::~Connection() {
  close(fd);
}

bool Connection::Send(std::string_view bytes) const {
  while (!bytes.empty()) {
    const ssize_t sent = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent == -1 && IsShut(errno)) return false;
    if (sent == -1) Fail("send");
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

std::size_t Connection::Receive(std::string& text, std::size_t size) const {
  const std::size_t before = text.size();
  text.resize(before + size);
  const ssize_t received = recv(fd, text.data() + before, size, 0);
  if (received == -1 && !IsShut(errno)) Fail("receive");
  const std::size_t count = received == -1 ? 0 : static_cast<std::size_t>(received);
  text.resize(before + count);
  return count;
}

}  // namespace bench
