#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "common/ErrorText.h"
#include "ipc/socket/Socket.h"

namespace zav::ipc {

using common::errorToString;

int Socket::receiveValue(unsigned& size, void* data) {
  int result = kNoSocket;
  if (data != nullptr && good()) result = static_cast<int>(recv(fd, data, size, MSG_NOSIGNAL));
  return analyseResult(result, size);
}

int Socket::receiveData(const unsigned& size, const void* data) {
  char* bytes = static_cast<char*>(const_cast<void*>(data));
  unsigned received = 0;
  unsigned chunk = getChunkSize(SO_RCVBUF, size);
  while (chunk > 0 && good()) {
    const ssize_t count = recv(fd, bytes + received, chunk, MSG_NOSIGNAL);
    if (count == -1) {
      const int error = errno;
      LOG_ERROR(typeName(), " ", fd, " Can't recv all message:", errorToString(error));
      break;
    }
    received += static_cast<unsigned>(count);
    if (count == 0 || received > size) {
      LOG_ERROR(typeName(), " ", fd, " wrong size received");
      break;
    }
    chunk = std::min(chunk, size - received);
  }
  return analyseResult(static_cast<int>(received), size);
}

template <>
int Socket::receiveContainer<std::string>(std::string* value) {
  value->clear();
  if (fd == -1) return kNoSocket;
  std::uint32_t length = 0;
  unsigned lengthSize = sizeof(length);
  const int result = receiveValue(lengthSize, &length);
  // Some bytes of a length are no length.
  if (result != kSocketOk) length = 0;
  if (result == kSocketOk && length <= kMaxContainerSize) {
    value->resize(length);
    return receiveData(length, value->data());
  }
  // A length over the limit is no failure of the transfer: it reads as an empty string.
  // The function's own name would show its template arguments.
  common::LogLine(common::Priority::kError, LOG_SITE_OF("receiveContainer"), length, " is over limit ",
                  kMaxContainerSize);
  return result;
}

}  // namespace zav::ipc
