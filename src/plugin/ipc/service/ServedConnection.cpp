#include "ipc/service/ServedConnection.h"

#include <sys/socket.h>

#include <algorithm>

namespace zav::ipc {

void ServedConnection::enter(int descriptor) {
  const std::lock_guard guard(mutex);
  fd = descriptor;
  phase = Phase::kReceiving;
  deadline = Clock::now() + kClientTime;
  if (stopping) cutReceiving();
}

void ServedConnection::requestReceived() {
  const std::lock_guard guard(mutex);
  phase = Phase::kWorking;
}

void ServedConnection::replyStarts() {
  const std::lock_guard guard(mutex);
  if (phase == Phase::kReplying) return;
  phase = Phase::kReplying;
  deadline = Clock::now() + (stopping ? Clock::duration(kClientTimeInStop) : Clock::duration(kClientTime));
}

void ServedConnection::leave() {
  const std::lock_guard guard(mutex);
  fd = -1;
  phase = Phase::kNone;
}

void ServedConnection::stop() {
  const std::lock_guard guard(mutex);
  stopping = true;
  if (phase == Phase::kReceiving) cutReceiving();
  if (phase == Phase::kReplying) deadline = std::min(deadline, Clock::now() + kClientTimeInStop);
}

void ServedConnection::resume() {
  const std::lock_guard guard(mutex);
  stopping = false;
}

void ServedConnection::cutOverdue(Clock::time_point now) {
  const std::lock_guard guard(mutex);
  if (now < deadline) return;
  if (phase == Phase::kReceiving) cutReceiving();
  if (phase == Phase::kReplying) ::shutdown(fd, SHUT_RDWR);
}

// Only the receiving side: what has come already can still be read, so a request that is whole in the socket's buffer
// is served and answered; one that is not meets its end.
void ServedConnection::cutReceiving() const {
  ::shutdown(fd, SHUT_RD);
}

}  // namespace zav::ipc
