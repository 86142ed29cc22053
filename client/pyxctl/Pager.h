#pragma once

#include <sys/types.h>

#include <memory>

namespace zav::pyxctl {

/// The program that shows standard output page by page: what PAGER says, else less. It belongs to one process's
/// standard output, which goes to it as long as the object lives; then the person's end of looking is waited for.
/// Meanwhile an interrupt of the terminal is for the pager.
class Pager {
 public:
  /// Nothing where PAGER is empty or "cat", or there is no shell to start it.
  static std::unique_ptr<Pager> Start();
  ~Pager();
  Pager(const Pager&) = delete;
  Pager& operator=(const Pager&) = delete;

 private:
  explicit Pager(pid_t pid) : pid_(pid) {}

  pid_t pid_;
};

}  // namespace zav::pyxctl
