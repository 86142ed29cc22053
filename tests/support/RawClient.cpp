#include "support/RawClient.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "support/WaitUntil.h"

namespace zav::test {
namespace {

constexpr std::chrono::seconds kDeadline{60};

int Connect(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd != -1 && connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) return fd;
  if (fd != -1) close(fd);
  return -1;
}

}  // namespace

RawClient::RawClient(const std::string& path, std::chrono::milliseconds deadline) {
  if (!WaitUntil([&] { return (fd = Connect(path)) != -1; }, deadline))
    throw std::runtime_error("nobody listens on " + path);
}

RawClient::~RawClient() {
  Close();
}

void RawClient::Close() {
  if (fd != -1) close(fd);
  fd = -1;
}

bool RawClient::Send(const void* bytes, size_t size) {
  const char* rest = static_cast<const char*>(bytes);
  while (size > 0) {
    const ssize_t sent = send(fd, rest, size, MSG_NOSIGNAL);
    if (sent <= 0) return false;
    rest += sent;
    size -= static_cast<size_t>(sent);
  }
  return true;
}

bool RawClient::SendInt(std::int32_t value) {
  return Send(&value, sizeof(value));
}

bool RawClient::SendString(const std::string& text) {
  return SendInt(static_cast<std::int32_t>(text.size())) && Send(text.data(), text.size());
}

bool RawClient::SendHeader(std::int32_t method, std::int32_t tag, std::int32_t module) {
  ipc::Header header;
  header.module = module;
  header.tag = tag;
  header.method = method;
  return SendPackage(header);
}

void RawClient::HalfClose() {
  shutdown(fd, SHUT_WR);
}

std::optional<std::string> RawClient::Receive(size_t size) {
  const auto end = std::chrono::steady_clock::now() + kDeadline;
  std::string bytes(size, '\0');
  size_t have = 0;
  while (have < size) {
    pollfd readable{fd, POLLIN, 0};
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()).count();
    if (left <= 0 || poll(&readable, 1, static_cast<int>(left)) <= 0) return std::nullopt;
    const ssize_t got = recv(fd, bytes.data() + have, size - have, 0);
    if (got <= 0) return std::nullopt;
    have += static_cast<size_t>(got);
  }
  return bytes;
}

std::optional<std::int32_t> RawClient::ReceiveInt() {
  const auto bytes = Receive(sizeof(std::int32_t));
  if (!bytes) return std::nullopt;
  std::int32_t value = 0;
  std::memcpy(&value, bytes->data(), sizeof(value));
  return value;
}

std::optional<std::string> RawClient::ReceiveString() {
  const auto size = ReceiveInt();
  if (!size || *size < 0) return std::nullopt;
  return Receive(static_cast<size_t>(*size));
}

bool RawClient::IsAnswered() const {
  pollfd readable{fd, POLLIN, 0};
  char byte = 0;
  return poll(&readable, 1, static_cast<int>(std::chrono::milliseconds(kDeadline).count())) == 1 &&
         recv(fd, &byte, 1, MSG_PEEK) == 1;
}

bool RawClient::EndsWithoutAnswer(std::chrono::milliseconds deadline) {
  pollfd readable{fd, POLLIN, 0};
  if (poll(&readable, 1, static_cast<int>(deadline.count())) != 1) return false;
  char byte = 0;
  return recv(fd, &byte, 1, 0) <= 0;
}

std::optional<std::int32_t> Report(const std::string& url, const std::string& threat) {
  std::optional<std::int32_t> answer;
  WaitUntil([&] {
    RawClient client;
    if (client.SendHeader(ipc::Method::kLogThreatUrl) && client.SendString(url) && client.SendString(threat)) {
      answer = client.ReceiveInt();
    }
    return answer.has_value();
  });
  return answer;
}

}  // namespace zav::test
