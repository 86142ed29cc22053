#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "ipc/service/Package.h"
#include "support/Device.h"

namespace zav::test {

/// A client of the local socket that sends just the bytes it is told to. Every wait has a deadline.
class RawClient {
 public:
  /// Connects. @throws std::runtime_error when nobody listens before the deadline; one of 0 is for a single attempt.
  explicit RawClient(const std::string& path = kSocketFile,
                     std::chrono::milliseconds deadline = std::chrono::seconds(20));
  ~RawClient();
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  int descriptor() const { return fd; }
  void Close();

  /// @return whether all was sent.
  bool Send(const void* bytes, size_t size);
  bool SendInt(std::int32_t value);
  /// Length and bytes.
  bool SendString(const std::string& text);
  bool SendHeader(ipc::Method method) { return SendHeader(static_cast<std::int32_t>(method)); }
  bool SendHeader(std::int32_t method, std::int32_t tag = ipc::kHeaderTag, std::int32_t module = 0);
  template <class P>
  bool SendPackage(const P& package) {
    const auto bytes = ipc::Encode(package);
    return Send(bytes.data(), bytes.size());
  }
  /// Ends the sending direction.
  void HalfClose();

  /// @return the bytes, or nothing when the connection ended (or the deadline came) before they were all here.
  std::optional<std::string> Receive(size_t size);
  std::optional<std::int32_t> ReceiveInt();
  std::optional<std::string> ReceiveString();
  /// Waits for something to receive, which stays there. @return whether it came before the end of the connection.
  bool IsAnswered() const;
  /// Waits for the end of the connection. @return whether it ended, without a further byte, before the deadline.
  bool EndsWithoutAnswer(std::chrono::milliseconds deadline = std::chrono::seconds(20));

 private:
  int fd = -1;
};

/// A whole report, retried while the service is busy with another connection. @return its answer.
std::optional<std::int32_t> Report(const std::string& url, const std::string& threat);

}  // namespace zav::test
