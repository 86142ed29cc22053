#pragma once

namespace host {

/// The signals that end the host, taken as something to wait for: SIGINT and SIGTERM, and SIGHUP unless whoever started
/// the host has it ignored, so that the host outlives the terminal.
///
/// They are blocked in the thread that makes it, and so in the threads which that one starts afterwards. They stay
/// blocked: one that comes while the host is ending must not cut that short.
class Signals {
 public:
  /// @throws std::system_error when the descriptor cannot be had.
  Signals();
  ~Signals();

  Signals(const Signals&) = delete;
  Signals& operator=(const Signals&) = delete;

  /// Readable once a signal came.
  int descriptor() const { return file; }

 private:
  int file;
};

}  // namespace host
