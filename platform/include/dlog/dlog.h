#pragma once

/// The platform log.
///
/// Every line goes through `__dlog_print`. A line is text for one reader at a time: it is written whole, whatever
/// other threads or processes write to the same place.

#ifdef __cplusplus
extern "C" {
#endif

/// Priorities, from the least to the most urgent.
enum DlogPriority {
  DLOG_DEBUG = 3,
  DLOG_INFO = 4,
  DLOG_WARN = 5,
  DLOG_ERROR = 6,
};

/// Log buffers.
enum DlogBuffer {
  DLOG_BUFFER_MAIN = 0,
  DLOG_BUFFER_SYSTEM = 2,
};

/// Writes one log line.
///
/// @param buffer    the log buffer, a `DlogBuffer`.
/// @param priority  a `DlogPriority`.
/// @param tag       who logs; not null.
/// @param format    a printf format and its arguments; no trailing newline.
/// @return the number of bytes written; 0 when the level filter drops the line; -1 when it could not be written.
///
/// Any thread may call it. `errno` is left as it was. It waits for nothing but the write itself.
__attribute__((visibility("default"), format(printf, 4, 5))) int __dlog_print(int buffer, int priority, const char* tag,
                                                                              const char* format, ...);

#ifdef __cplusplus
}
#endif
