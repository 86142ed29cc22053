#pragma once

/// What a host sets about the log. Only the stand-in has it: on a device the log belongs to the platform.

namespace dlog {

/// Drops every line below a priority.
///
/// @param priority  the least `DlogPriority` that is still written; `DLOG_DEBUG` (all) at the start.
///
/// Any thread, at any time.
__attribute__((visibility("default"))) void SetLevel(int priority);

/// Sends the log to a file instead of to standard error.
///
/// @param path  the file; it is made when missing (mode 0644) and appended to. Null: standard error again.
/// @return 0, or the `errno` of the open that failed; the log then goes where it went before.
///
/// To be called while no other thread logs: the file that was in use is closed.
__attribute__((visibility("default"))) int SetFile(const char* path);

}  // namespace dlog
