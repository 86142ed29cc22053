#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "common/ErrorText.h"
#include "ipc/socket/Socket.h"

namespace zav::ipc {

using common::ErrorText;

int Socket::sendValue(const unsigned& size, const void* data) {
  int result = kNoSocket;
  if (data != nullptr && good()) result = static_cast<int>(send(fd, data, size, MSG_NOSIGNAL));
  return analyseResult(result, size);
}

template <>
int Socket::sendValue<int>(const int* value) {
  return fd == -1 ? kNoSocket : sendValue(sizeof(*value), value);
}

int Socket::sendData(const unsigned& size, const void* data) {
  if (size == 0) {
    LOG_WARNING(typeName(), " : nothing to send");
    return analyseResult(0, 0);
  }
  const char* bytes = static_cast<const char*>(data);
  unsigned sent = 0;
  unsigned chunk = getChunkSize(SO_SNDBUF, size);
  while (chunk > 0 && good()) {
    const ssize_t count = send(fd, bytes + sent, chunk, MSG_NOSIGNAL);
    if (count == -1) {
      const int error = errno;
      LOG_ERROR(typeName(), " ", fd, " send data fail : ", ErrorText{error});
      break;
    }
    sent += static_cast<unsigned>(count);
    if (count == 0 || sent > size) {
      LOG_ERROR(typeName(), " ", fd, " wrong size sent");
      break;
    }
    chunk = std::min(chunk, size - sent);
  }
  return analyseResult(static_cast<int>(sent), size);
}

template <>
int Socket::sendContainer<std::string>(std::string* value) {
  if (fd == -1) return kNoSocket;
  if (value->size() > kMaxContainerSize) {
    // The function's own name would show its template arguments.
    common::LogLine(common::Priority::kError, LOG_SITE_OF("sendContainer"), typeName(), " ! ", value->size(),
                    " is over limit ", kMaxContainerSize);
    return kNoSocket;
  }
  const int size = static_cast<int>(value->size());
  const int result = sendValue<int>(&size);
  return result == kSocketOk ? sendData(static_cast<unsigned>(size), value->data()) : result;
}

}  // namespace zav::ipc
