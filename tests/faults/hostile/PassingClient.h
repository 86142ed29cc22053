#pragma once

#include <chrono>
#include <string>

namespace zav::test {

/// A client that waits for nothing but what it is told to: where nobody listens, or the backlog is full, it has no
/// connection.
class PassingClient {
 public:
  PassingClient();
  ~PassingClient();
  PassingClient(const PassingClient&) = delete;
  PassingClient& operator=(const PassingClient&) = delete;

  bool IsConnected() const { return connected; }
  /// As much as there is room for.
  void Send(const std::string& bytes) const;
  void HalfClose() const;
  /// Waits for an answer or the end, but no longer than that.
  void LookForAnswer(std::chrono::milliseconds time) const;

 private:
  int fd;
  bool connected;
};

}  // namespace zav::test
