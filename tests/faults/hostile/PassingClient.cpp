#include "PassingClient.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Requests.h"

namespace zav::test {

PassingClient::PassingClient() : fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
  const sockaddr_un address = Address(kSocketFile);
  connected = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

PassingClient::~PassingClient() {
  close(fd);
}

void PassingClient::Send(const std::string& bytes) const {
  [[maybe_unused]] const auto sent = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

void PassingClient::HalfClose() const {
  shutdown(fd, SHUT_WR);
}

void PassingClient::LookForAnswer(std::chrono::milliseconds time) const {
  pollfd readable{fd, POLLIN, 0};
  poll(&readable, 1, static_cast<int>(time.count()));
}

}  // namespace zav::test
