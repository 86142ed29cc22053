#pragma once

#include <unistd.h>

#include <utility>

namespace zav::common {

/// Owns an open descriptor and closes it, saying nothing; -1 is none.
class Descriptor {
 public:
  explicit Descriptor(int descriptor) : fd(descriptor) {}
  ~Descriptor() {
    if (fd != -1) close(fd);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int get() const { return fd; }
  /// Gives it to the caller.
  int release() { return std::exchange(fd, -1); }

 private:
  int fd;
};

}  // namespace zav::common
