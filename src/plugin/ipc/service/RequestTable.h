#pragma once

#include <cstdint>

#include "ipc/service/ServedConnection.h"
#include "ipc/socket/Socket.h"

namespace zav::ipc {

/// One request after its header: what its method receives and replies with, and where it stands in between.
struct Request {
  Socket& socket;
  ServedConnection& connection;
};

/// Performs a request: receives what follows the header, acts on the feature's state, replies.
using RequestHandler = void (*)(Request& request);

/// @param method  a header's method number.
/// @return its handler; null where there is none. A handler throws what the state throws on its first use, and for want
///         of memory; the request then has no reply.
RequestHandler FindRequestHandler(std::int32_t method);

}  // namespace zav::ipc
