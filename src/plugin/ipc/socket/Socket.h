#pragma once

#include <sys/un.h>

#include <cstdint>
#include <string>

#include "common/Log.h"

namespace zav::ipc {

/// The result codes of the transport; any other negative one is that of the system call that failed.
enum SocketCode : int {
  kSocketOk = 0,
  /// Fewer or more bytes were moved than asked for.
  kSizeMismatch = -1,
  /// There is no usable socket, or nothing was attempted.
  kNoSocket = -2,
};

/// The longest string in bytes that the container operations move.
inline constexpr std::uint32_t kMaxContainerSize = 16'777'216;

/// One Unix stream socket: owns its descriptor, and moves values, blocks and strings whole or not at all.
///
/// Nothing throws for what the peer or the system does: every operation gives a code, and a failed one is logged with
/// `errno` as the failing call left it. No operation raises SIGPIPE. A blocking descriptor blocks until the peer has
/// done its part. One thread at a time, but for `shutdown`, which another thread may call to end a wait.
class Socket {
 public:
  /// No socket yet.
  Socket() = default;
  /// Owns a descriptor; -1 is none.
  explicit Socket(int descriptor) : fd(descriptor) {}

  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  /// Maps what a transfer moved to a result.
  /// @param result    the bytes moved, or negative.
  /// @param expected  the bytes that should have been.
  /// @return 0 they agree; -1 they do not; `result` itself when negative.
  virtual int analyseResult(const int& result, const unsigned& expected);

  /// Sends `size` bytes with one call. @return 0, -1 some were not taken, -2 no socket or null `data`.
  virtual int sendValue(const unsigned& size, const void* data);
  /// Sends `size` bytes in pieces of the socket's send buffer. @return 0 or -1.
  virtual int sendData(const unsigned& size, const void* data);

  /// Receives `size` bytes with one call: what comes in pieces is a failure.
  /// @return 0, -1 fewer came, -2 no socket or null `data`.
  virtual int receiveValue(unsigned& size, void* data);
  /// Receives `size` bytes in pieces of the socket's receive buffer. @param data  written to. @return 0 or -1.
  virtual int receiveData(const unsigned& size, const void* data);

  /// Closes the descriptor.
  virtual ~Socket();

  /// Makes the descriptor, close-on-exec, unless there is one. After a failure, which is logged, it is -1.
  virtual void create();
  /// Ends traffic in both directions; the descriptor stays. Any thread.
  virtual void shutdown();

  /// @return whether the descriptor is above 0 and open; logged if not.
  bool good() const;
  /// @param option  SO_SNDBUF or SO_RCVBUF.
  /// @param limit   the most to return, bytes.
  /// @return the size of that buffer, at most `limit`; 0 on failure.
  unsigned getChunkSize(int option, unsigned limit) const;

  /// Sends or receives one `T`, int or std::string; a string as its length in 4 bytes and then its bytes.
  template <class T>
  int sendValue(const T* value);
  template <class T>
  int sendContainer(T* value);
  /// @param value  emptied first, and left empty by a failure, and by a length over the limit, which gives 0 all the
  ///               same. Memory is taken for the bytes that come, whatever length was announced.
  template <class T>
  int receiveContainer(T* value);

  /// Fills in the service's address.
  void fillAddress();

  /// The descriptor; -1 is none.
  int descriptor() const { return fd; }

 protected:
  /// This object's type as its log lines name it.
  const char* typeName() const;
  /// Receives a string's bytes after their length. @return as `receiveData`; -2 when there is no memory for them.
  int receiveText(unsigned length, std::string& text);

  int fd = -1;
  sockaddr_un address{};
  unsigned int addressLength = 0;
};

template <>
int Socket::sendValue<int>(const int* value);
template <>
int Socket::sendContainer<std::string>(std::string* value);
template <>
int Socket::receiveContainer<std::string>(std::string* value);

}  // namespace zav::ipc
