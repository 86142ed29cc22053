#include "ipc/socket/Socket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <typeinfo>

#include "common/ErrorText.h"
#include "ipc/socket/SocketAddress.h"

namespace zav::ipc {

using common::ErrorText;

namespace {

/// A host that closed its standard input gives 0 away as a descriptor, which is none here.
int MoveFromZero(int descriptor) {
  if (descriptor != 0) return descriptor;
  const int moved = fcntl(descriptor, F_DUPFD_CLOEXEC, 1);
  const int error = errno;
  close(descriptor);
  errno = error;
  return moved;
}

}  // namespace

const char* Socket::typeName() const {
  const char* name = typeid(*this).name();
  return *name == '*' ? name + 1 : name;
}

bool Socket::good() const {
  if (fd > 0 && fcntl(fd, F_GETFD) != -1) return true;
  const int error = errno;
  LOG_ERROR("socketFD : ", fd, " ", ErrorText{error});
  return false;
}

int Socket::analyseResult(const int& result, const unsigned& expected) {
  const int error = errno;
  if (result < 0) {
    LOG_ERROR(typeName(), " ", fd, " ", ErrorText{error});
    return result;
  }
  if (static_cast<unsigned>(result) != expected) {
    LOG_ERROR(typeName(), " ", fd, " size wrong : ", result, " != ", expected);
    return kSizeMismatch;
  }
  return kSocketOk;
}

unsigned Socket::getChunkSize(int option, unsigned limit) const {
  int value = 0;
  socklen_t length = sizeof(value);
  if (good() && getsockopt(fd, SOL_SOCKET, option, &value, &length) == 0) {
    return std::min(static_cast<unsigned>(value), limit);
  }
  const int error = errno;
  LOG_ERROR(typeName(), " ", fd, " getsockopt fails:", ErrorText{error});
  return 0;
}

void Socket::fillAddress() {
  initSockAddr(address, addressLength);
}

void Socket::create() {
  if (fd != -1) {
    LOG_WARNING(typeName(), ".existed ? socket : ", fd);
    return;
  }
  fd = MoveFromZero(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const int error = errno;
  if (fd == -1) LOG_ERROR(typeName(), " ", fd, " socket descriptor error:", ErrorText{error});
}

void Socket::shutdown() {
  if (fd == -1) {
    LOG_DEBUG(typeName(), " ", fd, " socket descriptor is wrong");
    return;
  }
  if (good() && ::shutdown(fd, SHUT_RDWR) == 0) return;
  const int error = errno;
  LOG_INFO(typeName(), " Shutdown socket FAIL:", ErrorText{error});
}

Socket::~Socket() {
  if (fd == -1) {
    LOG_ERROR(typeName(), " socket descriptor is wrong");
    return;
  }
  if (good() && close(fd) == 0) {
    LOG_DEBUG(typeName(), " : ", fd);
    return;
  }
  const int error = errno;
  LOG_ERROR(typeName(), " ! ", fd, " ! ", ErrorText{error});
}

}  // namespace zav::ipc
