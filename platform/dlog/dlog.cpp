#include "dlog/dlog.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <memory>
#include <mutex>
#include <new>

#include "dlog/control.h"

namespace {

std::atomic<int> level{DLOG_DEBUG};
std::atomic<int> output{STDERR_FILENO};
std::mutex writing;

constexpr size_t kHeadSize = 192;
constexpr size_t kLineSize = 1024;

char Letter(int priority) {
  constexpr char letters[] = "??VDIWEF";
  return priority >= 0 && priority <= 7 ? letters[priority] : '?';
}

/// "2026-01-31 12:00:00.123 W/TAG (pid, tid): "; at most `kHeadSize` characters, a long tag is cut.
int WriteHead(char* text, int priority, const char* tag) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm local{};
  localtime_r(&now.tv_sec, &local);
  std::array<char, 32> time{};
  if (strftime(time.data(), time.size(), "%F %T", &local) == 0) time[0] = '\0';
  return snprintf(text, kHeadSize, "%s.%03ld %c/%.100s (%d, %ld): ", time.data(), now.tv_nsec / 1000000,
                  Letter(priority), tag, getpid(), syscall(SYS_gettid));
}

/// The process that gave its standard error away may have made it nonblocking: no line is left half written for that.
bool AwaitRoom(int file) {
  pollfd writable{file, POLLOUT, 0};
  return poll(&writable, 1, -1) == 1 || errno == EINTR;
}

/// One write for the whole line: other processes' lines in the same file do not come between. Where the write takes it
/// in pieces, as a full pipe does, the lock keeps this process's own lines apart; it is held for nothing but writing.
int WriteLine(const char* text, size_t size) {
  const std::lock_guard guard(writing);
  const int file = output.load(std::memory_order_relaxed);
  const char* rest = text;
  while (size > 0) {
    const ssize_t written = write(file, rest, size);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0 && errno == EAGAIN && AwaitRoom(file)) continue;
    if (written < 0) return -1;
    rest += written;
    size -= static_cast<size_t>(written);
  }
  return static_cast<int>(rest - text);
}

__attribute__((format(printf, 3, 0))) int Print(int priority, const char* tag, const char* format, va_list arguments) {
  std::array<char, kLineSize> line;
  const auto head = static_cast<size_t>(WriteHead(line.data(), priority, tag));

  va_list again;
  va_copy(again, arguments);
  const int length = vsnprintf(line.data() + head, line.size() - head, format, arguments);
  std::unique_ptr<char[]> large;
  char* text = line.data();
  if (length >= 0 && head + static_cast<size_t>(length) + 1 > line.size()) {
    large.reset(new (std::nothrow) char[head + static_cast<size_t>(length) + 1]);
    if (large) {
      text = large.get();
      std::copy_n(line.data(), head, text);
      vsnprintf(text + head, static_cast<size_t>(length) + 1, format, again);
    }
  }
  va_end(again);
  if (length < 0) return -1;

  // Where memory was short the line is cut to what fits; the newline takes the place of the closing zero.
  const size_t size =
      large ? head + static_cast<size_t>(length) : std::min(head + static_cast<size_t>(length), line.size() - 1);
  text[size] = '\n';
  return WriteLine(text, size + 1);
}

}  // namespace

int __dlog_print(int /*buffer*/, int priority, const char* tag, const char* format, ...) {
  if (priority < level.load(std::memory_order_relaxed)) return 0;
  const int error = errno;
  va_list arguments;
  va_start(arguments, format);
  const int result = Print(priority, tag, format, arguments);
  va_end(arguments);
  errno = error;
  return result;
}

void dlog::SetLevel(int priority) {
  level.store(priority, std::memory_order_relaxed);
}

int dlog::SetFile(const char* path) {
  int file = STDERR_FILENO;
  if (path != nullptr) {
    file = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (file == -1) return errno;
  }
  const int previous = output.exchange(file);
  if (previous != STDERR_FILENO) close(previous);
  return 0;
}
