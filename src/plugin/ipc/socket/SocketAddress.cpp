#include "ipc/socket/SocketAddress.h"

#include <sys/socket.h>

#include <cstring>
#include <string>

#include "common/GlobalPaths.h"

namespace zav::ipc {
namespace {

// One place of the path's 108 is kept for the closing zero.
constexpr size_t kMaxPathSize = sizeof(sockaddr_un::sun_path) - 1;

}  // namespace

void initSockAddr(sockaddr_un& addr, unsigned int& length) {
  static const std::string socketName = common::runPath + "/.socket";
  static sockaddr_un staticSocketAddress{};
  static bool sockAddrInited = false;

  if (!sockAddrInited) {
    if (socketName.size() > kMaxPathSize) return;
    staticSocketAddress.sun_family = AF_UNIX;
    std::memcpy(staticSocketAddress.sun_path, socketName.c_str(), socketName.size() + 1);
    sockAddrInited = true;
  }
  addr = staticSocketAddress;
  length = sizeof(staticSocketAddress);
}

}  // namespace zav::ipc
