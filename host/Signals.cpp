#include "Signals.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <system_error>

namespace host {
namespace {

bool IsIgnored(int signal) {
  struct sigaction action {};
  return sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

}  // namespace

Signals::Signals() {
  sigset_t set;
  sigemptyset(&set);
  // A shell starts its background jobs with SIGINT ignored; blocked, it comes to the descriptor all the same.
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  if (!IsIgnored(SIGHUP)) sigaddset(&set, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  file = signalfd(-1, &set, SFD_CLOEXEC);
  if (file == -1) throw std::system_error(errno, std::generic_category(), "can't wait for signals");
}

Signals::~Signals() {
  close(file);
}

}  // namespace host
