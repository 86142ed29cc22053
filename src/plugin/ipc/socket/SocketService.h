#pragma once

#include "ipc/socket/Socket.h"

namespace zav::ipc {

/// The listening socket, and the owner of its file in the run directory.
///
/// One thread at a time; another one may call `shutdown` while none calls `retire` or `listen`.
class SocketService : public Socket {
 public:
  /// Fills in the address and removes a file that an earlier run left there.
  SocketService();
  /// Removes the socket's file.
  ~SocketService() override;

  /// Lets go of a descriptor that cannot listen any more, and of its file: a second bind on it would fail, and Linux
  /// refuses every connection to a listener that was ever shut. Silent; one that is still unused stays.
  void retire();

  /// Makes the descriptor if there is none, binds it and listens, every user being let in.
  /// @return whether it listens; if not, that was logged, and the descriptor is kept for the next try.
  bool listen();

  /// Accepts one connection, close-on-exec.
  /// @return its descriptor; 0 or less: there is none, and `errno` tells why.
  int accept();

 private:
  bool isSpent() const;
  void admitEveryUser() const;

  /// Whether the file of a descriptor that is gone could not be removed.
  bool fileIsLeft = false;
};

}  // namespace zav::ipc
