#include "ipc/service/WakeUp.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>

namespace zav::ipc {

WakeUp::WakeUp() : fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

WakeUp::~WakeUp() {
  if (fd != -1) close(fd);
}

void WakeUp::send() const {
  const std::uint64_t one = 1;
  // Fails only where it is readable anyway.
  [[maybe_unused]] const auto written = write(fd, &one, sizeof(one));
}

void WakeUp::clear() const {
  std::uint64_t count = 0;
  [[maybe_unused]] const auto taken = read(fd, &count, sizeof(count));
}

}  // namespace zav::ipc
