#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "Deadline.h"

namespace zav::client {

/// @return the path. Throws `kOutOfRange` for one that no socket can have.
std::string CheckedPath(std::string path);

/// How a transfer ended.
enum class Transfer {
  kDone,
  /// The service ended the connection; whether it had read all that it was sent is not known (see `LeftUnread`).
  kEnded,
  /// The service ended the connection and has not read, and will not read, all that it was sent.
  kReset,
  kTimedOut,
};

/// One connection to the service: owns the descriptor, which never blocks, is close-on-exec and raises no SIGPIPE. Used
/// by one thread at a time. What the machine itself refuses is thrown as `ErrorKind::kSystem`.
class Connection {
 public:
  /// Connects, waiting for room in the service's queue as long as the deadline allows; empty when it passed first.
  /// Throws `kNoService`, or `kOutOfRange` as `CheckedPath` does.
  static std::optional<Connection> Open(const std::string& path, const Deadline& deadline);

  Connection(Connection&& other) noexcept;
  Connection& operator=(Connection&&) = delete;
  ~Connection();

  /// Sends all of `bytes`.
  Transfer Send(std::string_view bytes, const Deadline& deadline);

  /// Receives exactly `size` bytes.
  Transfer Receive(void* target, std::size_t size, const Deadline& deadline);

  /// Waits for the first byte of the answer and leaves it where it is.
  Transfer AwaitAnswer(const Deadline& deadline);

  /// After `kEnded`: waits until it is certain whether the service has read all that it was sent, and returns true when
  /// it has not. False when it has, or when the deadline passed before that was certain.
  bool LeftUnread(const Deadline& deadline);

 private:
  explicit Connection(int fd) : fd_(fd) {}

  Transfer Receive(void* target, std::size_t size, int flags, const Deadline& deadline);
  /// What the errno of a failed transfer means: `kDone` to try again, once `events` made that worth it.
  Transfer AfterFailure(int error, short events, const Deadline& deadline);

  int fd_;
};

}  // namespace zav::client
