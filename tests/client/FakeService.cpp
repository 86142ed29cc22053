#include "FakeService.h"

#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace zav::client::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kPatience{20000};

/// Waits until `events` are seen on the descriptor.
bool Await(int fd, short events) {
  pollfd waiting{fd, events, 0};
  return ::poll(&waiting, 1, static_cast<int>(kPatience.count())) == 1;
}

/// Looks until the condition holds.
bool Until(const std::function<bool()>& condition) {
  const auto end = steady_clock::now() + kPatience;
  while (!condition()) {
    if (steady_clock::now() > end) return false;
    std::this_thread::yield();
  }
  return true;
}

bool HasHungUp(int fd) {
  pollfd state{fd, 0, 0};
  return ::poll(&state, 1, 0) == 1 && (state.revents & (POLLHUP | POLLERR)) != 0;
}

int Check(int result) {
  if (result == -1) throw std::runtime_error(std::strerror(errno));
  return result;
}

sockaddr_un AddressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) throw std::runtime_error("the temporary directory's name is too long");
  path.copy(address.sun_path, path.size());
  return address;
}

int MakeSocket(int flags) {
  return Check(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0));
}

int Connect(int fd, const std::string& path) {
  const sockaddr_un address = AddressOf(path);
  return ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
}

int Listen(const std::string& path, int backlog) {
  const int fd = MakeSocket(0);
  const sockaddr_un address = AddressOf(path);
  Check(::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
  Check(::listen(fd, backlog));
  return fd;
}

}  // namespace

std::string Words(std::initializer_list<std::int32_t> words) {
  std::string bytes;
  for (const std::int32_t word : words) {
    std::array<char, sizeof(word)> part{};
    std::memcpy(part.data(), &word, sizeof(word));
    bytes.append(part.data(), part.size());
  }
  return bytes;
}

std::string Text(std::string_view text) {
  return Words({static_cast<std::int32_t>(text.size())}) + std::string(text);
}

std::string Header(std::int32_t method) {
  return Words({0, 0, 8, method});
}

std::string LogAnswer(std::string_view json) {
  return Words({0, 0}) + Text(json);
}

std::string Peer::Read(std::size_t size) {
  std::string bytes(size, '\0');
  std::size_t got = 0;
  while (got < size) {
    const ssize_t received = Await(fd_, POLLIN) ? ::recv(fd_, bytes.data() + got, size - got, 0) : -1;
    if (received <= 0) {
      ADD_FAILURE() << "only " << got << " of " << size << " bytes came";
      break;
    }
    got += static_cast<std::size_t>(received);
  }
  bytes.resize(got);
  return bytes;
}

void Peer::AwaitUnread(std::size_t size) {
  EXPECT_TRUE(Until([this, size] {
    int unread = 0;
    Check(::ioctl(fd_, SIOCINQ, &unread));
    return static_cast<std::size_t>(unread) >= size;
  }));
}

void Peer::Send(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t sent = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent <= 0) return;
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
}

bool Peer::AwaitTaken() {
  bool hungUp = false;
  EXPECT_TRUE(Until([this, &hungUp] {
    int untaken = 0;
    Check(::ioctl(fd_, SIOCOUTQ, &untaken));
    hungUp = HasHungUp(fd_);
    return untaken == 0 || hungUp;
  }));
  return !hungUp;
}

void Peer::Dribble(std::string_view bytes) {
  for (const char& byte : bytes) {
    Send({&byte, 1});
    if (!AwaitTaken()) return;
  }
}

std::string Peer::AwaitEnd() {
  std::string rest;
  for (;;) {
    std::array<char, 4096> part{};
    if (!Await(fd_, POLLIN)) {
      ADD_FAILURE() << "the client did not end its connection";
      return rest;
    }
    const ssize_t received = ::recv(fd_, part.data(), part.size(), 0);
    if (received <= 0) return rest;
    rest.append(part.data(), static_cast<std::size_t>(received));
  }
}

void Peer::AwaitHangUp() {
  EXPECT_TRUE(Await(fd_, 0));
}

void Peer::Shut() {
  ::shutdown(fd_, SHUT_RDWR);
}

void Peer::Close() {
  if (fd_ != -1) ::close(fd_);
  fd_ = -1;
}

Script Answering(std::string request, std::string answer) {
  return [request = std::move(request), answer = std::move(answer)](Peer& peer) {
    EXPECT_EQ(peer.Read(request.size()), request);
    peer.Send(answer);
    EXPECT_EQ(peer.AwaitEnd(), "") << "more than the request";
  };
}

void Refuse(Peer& peer) {
  peer.Shut();
  peer.Close();
}

FakeService::FakeService(std::vector<Script> scripts)
    : scripts_(std::move(scripts)), fd_(Listen(path(), 16)), thread_([this] { Serve(); }) {}

FakeService::~FakeService() {
  ::shutdown(fd_, SHUT_RDWR);
  thread_.join();
  ::close(fd_);
}

void FakeService::Serve() {
  for (std::size_t next = 0;; next = std::min(next + 1, scripts_.size() - 1)) {
    const int fd = ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd == -1) return;
    ++connections_;
    Peer peer(fd);
    scripts_.at(next)(peer);
  }
}

FullQueue::FullQueue() : fd_(Listen(path(), 0)) {
  for (;;) {
    waiting_.push_back(MakeSocket(SOCK_NONBLOCK));
    if (Connect(waiting_.back(), path()) != 0) break;
  }
  if (errno != EAGAIN) throw std::runtime_error(std::strerror(errno));
}

FullQueue::~FullQueue() {
  for (const int fd : waiting_) ::close(fd);
  ::close(fd_);
}

void FullQueue::Drain(const Script& script) {
  // The last one of those that wait is the one that found no room.
  for (std::size_t i = 0; i + 1 < waiting_.size(); ++i) ::close(Check(::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC)));
  if (!Await(fd_, POLLIN)) throw std::runtime_error("the client did not come");
  Peer peer(Check(::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC)));
  script(peer);
}

}  // namespace zav::client::test
