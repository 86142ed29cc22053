#pragma once

#include <signal.h>

namespace zav::common {

/// While it lives, the thread gets no signals, and neither do the threads that it starts: those of the process are for
/// the host's own threads. Signals that an instruction of the thread itself raises stay as they are.
class SignalBlock {
 public:
  SignalBlock() {
    sigset_t all;
    sigfillset(&all);
    for (const int raised : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT}) sigdelset(&all, raised);
    pthread_sigmask(SIG_SETMASK, &all, &previous);
  }
  ~SignalBlock() { pthread_sigmask(SIG_SETMASK, &previous, nullptr); }

  SignalBlock(const SignalBlock&) = delete;
  SignalBlock& operator=(const SignalBlock&) = delete;

 private:
  sigset_t previous;
};

}  // namespace zav::common
