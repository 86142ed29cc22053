#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "support/TemporaryDirectory.h"

namespace zav::client::test {

/// Numbers as they travel: 32 bits each, in host byte order.
std::string Words(std::initializer_list<std::int32_t> words);
/// A text as it travels: its length, then its bytes.
std::string Text(std::string_view text);
/// The bytes of a request without anything after its header.
std::string Header(std::int32_t method);
/// The answer that holds these log records.
std::string LogAnswer(std::string_view json);

using zav::test::TemporaryDirectory;

/// The service's end of one connection. Whatever it waits for and does not get within 20 s fails the test.
class Peer {
 public:
  explicit Peer(int fd) : fd_(fd) {}
  ~Peer() { Close(); }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  /// Exactly `size` bytes.
  std::string Read(std::size_t size);
  /// Waits until at least `size` bytes have come and leaves them unread.
  void AwaitUnread(std::size_t size);
  void Send(std::string_view bytes);
  /// Sends a byte at a time, each when the client has taken the one before, until the client ends the connection.
  void Dribble(std::string_view bytes);
  /// Waits until the client has ended the connection and returns what it had still sent.
  std::string AwaitEnd();
  /// Waits until the client has ended the connection and reads nothing more.
  void AwaitHangUp();
  /// Ends both directions, as a service does that refuses, and leaves the descriptor open.
  void Shut();
  void Close();

 private:
  bool AwaitTaken();

  int fd_;
};

/// What a service does with one connection.
using Script = std::function<void(Peer&)>;

/// Takes the request, whose bytes have to be `request`, answers and waits for the client to end the connection.
Script Answering(std::string request, std::string answer);
/// Refuses a connection as the service does while it serves another one.
void Refuse(Peer& peer);

/// A service on a socket of its own whose every connection follows a script. It ends with the object.
class FakeService {
 public:
  /// The first connection follows the first script, and so on; those beyond the last one follow the last.
  explicit FakeService(std::vector<Script> scripts);
  FakeService(std::initializer_list<Script> scripts) : FakeService(std::vector<Script>(scripts)) {}
  ~FakeService();
  FakeService(const FakeService&) = delete;
  FakeService& operator=(const FakeService&) = delete;

  std::string path() const { return directory_.path() / "socket"; }
  /// How many connections it has taken.
  int connections() const { return connections_; }

 private:
  void Serve();

  TemporaryDirectory directory_;
  std::vector<Script> scripts_;
  int fd_;
  std::atomic<int> connections_ = 0;
  std::thread thread_;
};

/// A socket on which nobody takes connections, and whose queue is full.
class FullQueue {
 public:
  FullQueue();
  ~FullQueue();
  FullQueue(const FullQueue&) = delete;
  FullQueue& operator=(const FullQueue&) = delete;

  std::string path() const { return directory_.path() / "socket"; }
  /// Ends the connections that fill the queue, then gives the next one to the script.
  void Drain(const Script& script);

 private:
  TemporaryDirectory directory_;
  int fd_;
  std::vector<int> waiting_;
};

}  // namespace zav::client::test
