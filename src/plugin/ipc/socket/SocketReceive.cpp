#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <new>

#include "common/ErrorText.h"
#include "ipc/socket/Socket.h"

namespace zav::ipc {

using common::ErrorText;

namespace {

struct Free {
  void operator()(char* bytes) const { std::free(bytes); }
};

}  // namespace

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
      LOG_ERROR(typeName(), " ", fd, " Can't recv all message:", ErrorText{error});
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

int Socket::receiveText(unsigned length, std::string& text) {
  // The length that a peer announces costs memory only as the bytes come: none but the first is touched before. (calloc
  // clears, and so touches, what an earlier string had.)
  const std::unique_ptr<char, Free> bytes(static_cast<char*>(std::malloc(length + size_t{1})));
  try {
    if (!bytes) throw std::bad_alloc();
    *bytes = '\0';
    const int result = receiveData(length, bytes.get());
    if (result == kSocketOk) text.assign(bytes.get(), length);
    return result;
  } catch (const std::bad_alloc&) {
    common::LogLine(common::Priority::kError, LOG_SITE_OF("receiveContainer"), "no memory for ", length, " bytes");
    return kNoSocket;
  }
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
  if (result == kSocketOk && length <= kMaxContainerSize) return receiveText(length, *value);
  // A length over the limit is no failure of the transfer: it reads as an empty string.
  // The function's own name would show its template arguments.
  common::LogLine(common::Priority::kError, LOG_SITE_OF("receiveContainer"), length, " is over limit ",
                  kMaxContainerSize);
  return result;
}

}  // namespace zav::ipc
