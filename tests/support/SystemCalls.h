#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>

/// Faults, waits and observations in the system calls of the plug-in: the test program stands in front of the C
/// library's functions. Without a hook every call goes straight through.
namespace zav::test {

enum class Call {
  kAccept4,
  kBind,
  kClose,
  kFcntl,
  kFsync,
  kListen,
  kMkdir,
  kNanosleep,
  kOpen,
  kPoll,
  kPthreadCreate,
  kRead,
  kRecv,
  kRename,
  kSelect,
  kSend,
  kShutdown,
  kSocket,
  kStat,
  kStatvfs,
  kWrite
};

/// What a call was given, as far as it has it.
struct CallArguments {
  /// The descriptor; of select the highest one and 1.
  int fd = -1;
  /// The bytes to move, the length of the address, the backlog, the mode of a directory.
  size_t size = 0;
  int flags = 0;
  /// The time to wait; nothing when it waits without a time-out.
  std::optional<std::chrono::nanoseconds> time;
  /// The fd_set of select; the bytes of write; where nanosleep puts the time that is left; the address of bind; the
  /// path of a call that has one, the old one of rename.
  void* data = nullptr;
};

/// Stands in front of one function while it lives; the innermost of several is asked.
class CallHook {
 public:
  /// Called on the caller's thread before the call. It gives the result in place of the call's, having set `errno`
  /// itself; nothing lets the call through. It may throw where the call may.
  using Action = std::function<std::optional<long>(const CallArguments&)>;

  CallHook(Call call, Action action);
  /// Returns when no thread is in the action any more.
  ~CallHook();
  CallHook(const CallHook&) = delete;
  CallHook& operator=(const CallHook&) = delete;

 private:
  Call call;
  Action previous;
};

/// An action that makes the call fail, every time or a number of times.
CallHook::Action Fail(int error, int times = -1);

}  // namespace zav::test
