#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <string>

namespace zav::test {

/// A system call of the traced process.
struct SystemCall {
  long number = 0;
  std::array<std::uint64_t, 6> arguments{};
  /// At its end alone; negative: the error.
  std::int64_t result = 0;
};

/// Sees every system call of all threads of a child of this process. One thread makes it and uses it.
class SystemCallTracer {
 public:
  /// Called while the thread waits just before its call, and just after it.
  using Visit = std::function<void(const SystemCall&)>;

  explicit SystemCallTracer(pid_t process);

  /// Returns when the process has ended.
  void Run(const Visit& before, const Visit& after);

  /// The process's memory, as far as it can be read.
  std::string Memory(std::uint64_t address, size_t size) const;
  /// A text that ends with a zero.
  std::string Text(std::uint64_t address) const;

 private:
  void Look(pid_t thread, const Visit& before, const Visit& after);

  pid_t process;
  /// What each thread is in.
  std::map<pid_t, SystemCall> calls;
};

}  // namespace zav::test
