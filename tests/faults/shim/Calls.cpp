// The functions of the C library that the shim stands in front of. Each stands under its own name by an assembler
// label: the C library's declarations, inline ones among them, then do not get in the way. Where there are two names
// for one function, with and without 64, the libraries of a process use both.

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <memory>
#include <type_traits>

#include "Strike.h"

namespace zav::faults {
namespace {

/// The function that a call goes on to.
template <class Function>
class Next {
 public:
  constexpr explicit Next(const char* of) : name(of) {}

  Function* get() {
    if (function.load(std::memory_order_relaxed) == nullptr)
      function = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
    return function.load(std::memory_order_relaxed);
  }

 private:
  const char* name;
  std::atomic<Function*> function{nullptr};
};

template <class Result>
Result Failed(int error) {
  errno = error;
  if constexpr (std::is_pointer_v<Result>) {
    return nullptr;
  } else {
    return -1;
  }
}

size_t Half(size_t size) {
  return (size + 1) / 2;
}

template <class Time>
Time Hurried(Time time) {
  return IsHurried() ? time / 1000 : time;
}

}  // namespace

// Looked for at the start, while there is one thread: while a library is being unloaded, its threads would wait for
// ever for the loader's lock. A call that comes earlier looks for itself.
#define NEXT(result, name, ...)                                                                \
  result Shim_##name(__VA_ARGS__) __asm__(#name) __attribute__((visibility("default"), used)); \
  namespace {                                                                                  \
  constinit Next<std::remove_reference_t<decltype(Shim_##name)>> next_##name{#name};           \
  [[maybe_unused]] const bool has_##name = next_##name.get() != nullptr;                       \
  }

// CALL(group, result, name, (arguments), parameters...): fails, or goes on.
#define CALL(group, result, name, arguments, ...)                            \
  NEXT(result, name, __VA_ARGS__)                                            \
  result Shim_##name(__VA_ARGS__) {                                          \
    if (const int error = Strike(Call::group)) return Failed<result>(error); \
    return next_##name.get() arguments;                                      \
  }

// A call that moves `size` bytes, and may also move some of them.
#define TRANSFER(group, name, arguments, ...)     \
  NEXT(ssize_t, name, __VA_ARGS__)                \
  ssize_t Shim_##name(__VA_ARGS__) {              \
    const int error = Strike(Call::group);        \
    if (error > 0) return Failed<ssize_t>(error); \
    if (error == kShort) size = Half(size);       \
    return next_##name.get() arguments;           \
  }

// The mode is there only where a file may be made; it is passed on whatever it is.
#define OPEN(name, arguments, ...)                                                       \
  NEXT(int, name, __VA_ARGS__, ...)                                                      \
  int Shim_##name(__VA_ARGS__, ...) {                                                    \
    if (const int error = Strike(Call::kOpen)) return Failed<int>(error);                \
    va_list list;                                                                        \
    va_start(list, flags);                                                               \
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(list, mode_t) : 0; \
    va_end(list);                                                                        \
    return next_##name.get() arguments;                                                  \
  }

OPEN(open, (path, flags, mode), const char* path, int flags)
OPEN(open64, (path, flags, mode), const char* path, int flags)
OPEN(openat, (directory, path, flags, mode), int directory, const char* path, int flags)
OPEN(openat64, (directory, path, flags, mode), int directory, const char* path, int flags)
CALL(kOpen, FILE*, fopen, (path, mode), const char* path, const char* mode)
CALL(kOpen, FILE*, fopen64, (path, mode), const char* path, const char* mode)

TRANSFER(kRead, read, (file, data, size), int file, void* data, size_t size)
TRANSFER(kRead, pread, (file, data, size, offset), int file, void* data, size_t size, off_t offset)
TRANSFER(kRead, pread64, (file, data, size, offset), int file, void* data, size_t size, off_t offset)

TRANSFER(kWrite, write, (file, data, size), int file, const void* data, size_t size)
TRANSFER(kWrite, pwrite, (file, data, size, offset), int file, const void* data, size_t size, off_t offset)
TRANSFER(kWrite, pwrite64, (file, data, size, offset), int file, const void* data, size_t size, off_t offset)
NEXT(ssize_t, writev, int file, const iovec* pieces, int count)
ssize_t Shim_writev(int file, const iovec* pieces, int count) {
  const int error = Strike(Call::kWrite);
  if (error > 0) return Failed<ssize_t>(error);
  if (error == kShort) return next_write.get()(file, pieces->iov_base, Half(pieces->iov_len));
  return next_writev.get()(file, pieces, count);
}

CALL(kSync, int, fsync, (file), int file)
CALL(kSync, int, fdatasync, (file), int file)
CALL(kRename, int, rename, (from, to), const char* from, const char* to)
CALL(kUnlink, int, unlink, (path), const char* path)
CALL(kUnlink, int, unlinkat, (directory, path, flags), int directory, const char* path, int flags)
CALL(kUnlink, int, remove, (path), const char* path)
CALL(kTruncate, int, ftruncate, (file, size), int file, off_t size)
CALL(kTruncate, int, ftruncate64, (file, size), int file, off_t size)
CALL(kChmod, int, chmod, (path, mode), const char* path, mode_t mode)
CALL(kChmod, int, fchmod, (file, mode), int file, mode_t mode)

CALL(kStat, int, stat, (path, info), const char* path, struct stat* info)
CALL(kStat, int, stat64, (path, info), const char* path, struct stat* info)
CALL(kStat, int, lstat, (path, info), const char* path, struct stat* info)
CALL(kStat, int, lstat64, (path, info), const char* path, struct stat* info)
CALL(kStat, int, fstat, (file, info), int file, struct stat* info)
CALL(kStat, int, fstat64, (file, info), int file, struct stat* info)
CALL(kStat, int, access, (path, mode), const char* path, int mode)
CALL(kStat, int, faccessat, (directory, path, mode, flags), int directory, const char* path, int mode, int flags)
CALL(kStat, int, statvfs, (path, info), const char* path, struct statvfs* info)
CALL(kMkdir, int, mkdir, (path, mode), const char* path, mode_t mode)

CALL(kSocket, int, socket, (domain, type, protocol), int domain, int type, int protocol)
CALL(kBind, int, bind, (file, address, length), int file, const sockaddr* address, socklen_t length)
CALL(kListen, int, listen, (file, backlog), int file, int backlog)
CALL(kAccept, int, accept4, (file, address, length, flags), int file, sockaddr* address, socklen_t* length, int flags)
TRANSFER(kReceive, recv, (file, data, size, flags), int file, void* data, size_t size, int flags)
TRANSFER(kSend, send, (file, data, size, flags), int file, const void* data, size_t size, int flags)
CALL(kGetsockopt, int, getsockopt, (file, level, option, value, length), int file, int level, int option, void* value,
     socklen_t* length)
CALL(kSelect, int, select, (count, in, out, special, time), int count, fd_set* in, fd_set* out, fd_set* special,
     timeval* time)
CALL(kSelect, int, poll, (files, count, time), pollfd* files, nfds_t count, int time)

// To ask for a descriptor's flags fails only where it is no descriptor: such a fault would be a lie about what is open.
#define FCNTL(name)                                                  \
  NEXT(int, name, int file, int command, ...)                        \
  int Shim_##name(int file, int command, ...) {                      \
    const int error = command != F_GETFD ? Strike(Call::kFcntl) : 0; \
    if (error != 0) return Failed<int>(error);                       \
    va_list list;                                                    \
    va_start(list, command);                                         \
    void* const argument = va_arg(list, void*);                      \
    va_end(list);                                                    \
    return next_##name.get()(file, command, argument);               \
  }
FCNTL(fcntl)
FCNTL(fcntl64)

namespace {

struct Start {
  void* (*body)(void*);
  void* argument;
  bool counted;
};

/// The first steps of a new thread, which has the say of the one that made it.
void* Run(void* argument) {
  bool counted = false;
  Start start{};
  {
    const Counting uncounted(false);
    const std::unique_ptr<Start> owned(static_cast<Start*>(argument));
    start = *owned;
    counted = start.counted;
  }
  const Counting inherited(counted);
  return start.body(start.argument);
}

}  // namespace

NEXT(int, pthread_create, pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*), void* argument)
int Shim_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*), void* argument) {
  // Gives its error number as its result.
  if (const int error = Strike(Call::kThread)) return error;
  std::unique_ptr<Start> start;
  {
    const bool counted = IsCounted();
    const Counting uncounted(false);
    start = std::make_unique<Start>(Start{body, argument, counted});
  }
  const int result = next_pthread_create.get()(thread, attributes, Run, start.get());
  // The thread frees it then.
  if (result == 0) static_cast<void>(start.release());
  return result;
}

NEXT(int, nanosleep, const timespec* time, timespec* left)
int Shim_nanosleep(const timespec* time, timespec* left) {
  timespec hurried{Hurried(time->tv_sec), Hurried(time->tv_nsec)};
  if (IsHurried()) hurried.tv_nsec += (time->tv_sec % 1000) * 1'000'000;
  return next_nanosleep.get()(&hurried, left);
}

NEXT(int, usleep, useconds_t time)
int Shim_usleep(useconds_t time) {
  return next_usleep.get()(Hurried(time));
}

}  // namespace zav::faults
