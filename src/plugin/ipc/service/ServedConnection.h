#pragma once

#include <chrono>
#include <mutex>
#include <optional>

#include "ipc/service/WakeUp.h"

namespace zav::ipc {

/// The one connection that is being served, as those see it who may have to cut it off: a client that sends no end of
/// its request, or does not take its reply, must hold up neither the service nor a stop.
///
/// The connection's thread says what it is about to wait for: `enter`, `requestReceived`, `replyStarts`, `leave`. The
/// accept loop looks after it with `watch` and `cutOverdue`, a stop with `stop` and `cutOverdue`. The time that the
/// service itself takes, between `requestReceived` and `replyStarts`, has no limit. Any thread may call anything: all
/// is guarded by one mutex, under which the descriptor is registered, shut and deregistered, so that none is shut after
/// it was closed and given to somebody else.
class ServedConnection {
 public:
  using Clock = std::chrono::steady_clock;

  /// How long a client may take for its request, and again for taking the reply; counted from `enter` and
  /// `replyStarts`, and not extended by bytes that come now and then.
  static constexpr std::chrono::seconds kClientTime{30};
  /// How long it may take for the reply once a stop was asked for.
  static constexpr std::chrono::milliseconds kClientTimeInStop{500};

  /// The client of `descriptor` is waited for: its request. The descriptor stays open until `leave`.
  void enter(int descriptor);
  /// The request is here whole; from here on the service works.
  void requestReceived();
  /// The client is waited for again: it has to take the reply. Said again for a later part of it, nothing changes.
  void replyStarts();
  /// Nothing is waited for any more; the descriptor may be closed. Harmless without `enter`.
  void leave();

  /// No client is waited for from here on. One that is silent is cut off at once: what it has sent by now is read to
  /// its end and answered when it is a whole request, else it is the end of the connection.
  void stop();
  /// Takes `stop` back.
  void resume();

  /// For the accept loop, before it waits: how long it may wait until it has to look again, nothing when no connection
  /// is open. While it waits so, the end of the connection is announced by `wakeUp`: there is no timer left that would
  /// fire when nothing is being served.
  std::optional<Clock::duration> watch();
  WakeUp& wakeUp() { return ended; }

  /// Cuts the client off if it has used up its time.
  void cutOverdue();

 private:
  enum class Phase { kNone, kReceiving, kWorking, kReplying };

  void cutReceiving() const;

  WakeUp ended;

  std::mutex mutex;
  // Guarded by `mutex`:
  int fd = -1;
  Phase phase = Phase::kNone;
  /// While the client is waited for: when its time is up.
  Clock::time_point deadline;
  bool stopping = false;
  /// Whether the accept loop waits with a time-out that the end of the connection has to call off.
  bool watched = false;
};

}  // namespace zav::ipc
