#include "ipc/service/ServedConnection.h"

#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>

namespace zav::ipc {
namespace {

/// A reply up to here fits into any socket's buffer: there is nothing to wait for.
constexpr std::size_t kShortReply = 1024;

/// Makes a transfer fail that moves nothing for kClientTime. Where the system does not, the client is still cut off as
/// soon as somebody else wants to be served.
void LimitWaits(int descriptor, int option) {
  const timeval longest{ServedConnection::kClientTime.count(), 0};
  setsockopt(descriptor, SOL_SOCKET, option, &longest, sizeof(longest));
}

}  // namespace

void ServedConnection::enter(int descriptor) {
  const std::lock_guard guard(mutex);
  fd = descriptor;
  phase = Phase::kReceiving;
  deadline = Clock::now() + kClientTime;
  if (stopping) cutReceiving();
}

void ServedConnection::textFollows() {
  const std::lock_guard guard(mutex);
  LimitWaits(fd, SO_RCVTIMEO);
}

void ServedConnection::requestReceived() {
  const std::lock_guard guard(mutex);
  phase = Phase::kWorking;
}

void ServedConnection::replyStarts(std::size_t size) {
  const std::lock_guard guard(mutex);
  if (size > kShortReply) LimitWaits(fd, SO_SNDTIMEO);
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
