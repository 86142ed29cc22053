#pragma once

#include <sys/un.h>

namespace zav::ipc {

/// Fills in the address of the local socket: the file ".socket" in the run directory.
///
/// @param addr    out: the address; left alone if the path does not fit it.
/// @param length  out: the size of the whole address structure, 110; left alone likewise.
///
/// The first call must have returned before a second thread calls.
void initSockAddr(sockaddr_un& addr, unsigned int& length);

}  // namespace zav::ipc
