#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace bench {

/// A client's end of a Unix socket. Whatever takes longer than a minute counts as hung.
///
/// Every function throws std::runtime_error for what a service that is well would not do.
class Connection {
 public:
  /// Connects. @param type  SOCK_STREAM or SOCK_DGRAM.
  Connection(const std::string& path, int type);
  ~Connection();

  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  /// Sends all of it. @return false when the other end has shut the connection.
  bool Send(std::string_view bytes) const;

  /// Receives at most `size` bytes behind what `text` holds. @return how many; 0 at the end of the connection.
  std::size_t Receive(std::string& text, std::size_t size) const;

 private:
  int fd;
};

}  // namespace bench
