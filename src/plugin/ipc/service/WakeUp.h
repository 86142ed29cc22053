#pragma once

namespace zav::ipc {

/// A descriptor that becomes readable when somebody asks for it: what wakes a thread out of a wait on descriptors.
///
/// `send` from any thread; the rest is for the one that waits.
class WakeUp {
 public:
  WakeUp();
  ~WakeUp();

  WakeUp(const WakeUp&) = delete;
  WakeUp& operator=(const WakeUp&) = delete;

  /// To wait on for reading; -1 when the system gave none: nobody is woken then.
  int descriptor() const { return fd; }
  void send() const;
  /// Takes back what was sent by now.
  void clear() const;

 private:
  int fd;
};

}  // namespace zav::ipc
