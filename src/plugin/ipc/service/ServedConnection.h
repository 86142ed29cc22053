#pragma once

#include <chrono>
#include <mutex>

namespace zav::ipc {

/// The one connection that is being served, as those see it who may have to cut it off: a client that sends no end of
/// its request, or does not take its reply, must hold up neither the next client nor a stop.
///
/// The connection's thread says what it is about to wait for: `enter`, `requestReceived`, `replyStarts`, `leave`. The
/// accept loop calls `cutOverdue` when somebody else wants to be served; a stop calls `stop`, and then `cutOverdue` now
/// and then. So no timer runs, and a client whose time is up keeps its connection as long as nobody minds. The time
/// that the service itself takes, between `requestReceived` and `replyStarts`, has no limit. Any thread may call
/// anything: all is guarded by one mutex, under which the descriptor is registered, shut and deregistered, so that none
/// is shut after it was closed and given to somebody else.
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
  /// The client is waited for again: it has to take the reply. Said again for a later part of it, its time goes on.
  void replyStarts();
  /// Nothing is waited for any more; the descriptor may be closed.
  void leave();

  /// No client is waited for from here on. One that is silent is cut off at once: what it has sent by now is read to
  /// its end and answered when it is a whole request, else it is the end of the connection.
  void stop();
  /// Takes `stop` back.
  void resume();

  /// Cuts the client off if its time is up `now`.
  void cutOverdue(Clock::time_point now);

 private:
  enum class Phase { kNone, kReceiving, kWorking, kReplying };

  void cutReceiving() const;

  std::mutex mutex;
  // Guarded by `mutex`:
  int fd = -1;
  Phase phase = Phase::kNone;
  /// While the client is waited for: when its time is up.
  Clock::time_point deadline;
  bool stopping = false;
};

}  // namespace zav::ipc
