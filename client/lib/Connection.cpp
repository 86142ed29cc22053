#include "Connection.h"

#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

#include "Error.h"

namespace zav::client {
namespace {

std::string ErrorText(int error) {
  return std::generic_category().message(error);
}

sockaddr_un AddressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), CheckedPath(path).size());
  return address;
}

int MakeSocket() {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd == -1) throw Error(ErrorKind::kSystem, "no socket can be made: " + ErrorText(errno));
  return fd;
}

/// 0, or the errno of connect().
int Connect(int fd, const sockaddr_un& address) {
  const int result = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
  return result == 0 ? 0 : errno;
}

}  // namespace

std::string CheckedPath(std::string path) {
  if (path.empty() || path.size() >= sizeof(sockaddr_un::sun_path) || path.find('\0') != std::string::npos) {
    throw Error(ErrorKind::kOutOfRange, "a socket's path has 1 to 107 bytes, this has " + std::to_string(path.size()));
  }
  return path;
}

std::optional<Connection> Connection::Open(const std::string& path, const Deadline& deadline) {
  const sockaddr_un address = AddressOf(path);
  Connection connection(MakeSocket());
  for (GrowingPause pause; !deadline.Passed(); pause.Take(deadline)) {
    const int error = Connect(connection.fd_, address);
    if (error == 0) return connection;
    // A full queue fails at once on a socket that does not block, and nothing reports when it has room again.
    if (error != EAGAIN && error != EINTR) {
      throw Error(ErrorKind::kNoService, "no service at " + path + " (" + ErrorText(error) + ")");
    }
  }
  return std::nullopt;
}

Connection::Connection(Connection&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

Connection::~Connection() {
  if (fd_ != -1) ::close(fd_);
}

Transfer Connection::Send(std::string_view bytes, const Deadline& deadline) {
  while (!bytes.empty()) {
    if (deadline.Passed()) return Transfer::kTimedOut;
    const ssize_t sent = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(sent));
      continue;
    }
    const Transfer failure = AfterFailure(errno, POLLOUT, deadline);
    if (failure != Transfer::kDone) return failure;
  }
  return Transfer::kDone;
}

Transfer Connection::Receive(void* target, std::size_t size, const Deadline& deadline) {
  return Receive(target, size, 0, deadline);
}

Transfer Connection::AwaitAnswer(const Deadline& deadline) {
  std::byte first{};
  return Receive(&first, sizeof(first), MSG_PEEK, deadline);
}

Transfer Connection::Receive(void* target, std::size_t size, int flags, const Deadline& deadline) {
  auto* next = static_cast<std::byte*>(target);
  while (size > 0) {
    if (deadline.Passed()) return Transfer::kTimedOut;
    const ssize_t received = ::recv(fd_, next, size, flags);
    if (received == 0) return Transfer::kEnded;
    if (received > 0) {
      next += received;
      size -= static_cast<std::size_t>(received);
      continue;
    }
    const Transfer failure = AfterFailure(errno, POLLIN, deadline);
    if (failure != Transfer::kDone) return failure;
  }
  return Transfer::kDone;
}

Transfer Connection::AfterFailure(int error, short events, const Deadline& deadline) {
  if (error == EINTR) return Transfer::kDone;
  if (error == EPIPE || error == ECONNRESET) return Transfer::kReset;
  if (error != EAGAIN) throw Error(ErrorKind::kSystem, "the connection failed: " + ErrorText(error));
  pollfd waiting{fd_, events, 0};
  if (::poll(&waiting, 1, deadline.PollTimeout()) == -1 && errno != EINTR) {
    throw Error(ErrorKind::kSystem, "cannot wait for the service: " + ErrorText(errno));
  }
  return Transfer::kDone;
}

bool Connection::LeftUnread(const Deadline& deadline) {
  // A service that shuts the connection before it closes it shows its end first and what became of our bytes later. The
  // kernel sets the error before it drops the bytes, so they are looked at in the other order: none left and then no
  // error says that they were read.
  for (;;) {
    int unread = 0;
    if (::ioctl(fd_, SIOCOUTQ, &unread) != 0) unread = 0;
    int error = 0;
    socklen_t size = sizeof(error);
    if (::getsockopt(fd_, SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error == ECONNRESET) return true;
    if (unread == 0 || deadline.Passed()) return false;
    deadline.Pause(std::chrono::milliseconds(1));
  }
}

}  // namespace zav::client
