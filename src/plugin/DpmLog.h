#pragma once

#include <dlog/dlog.h>

/// The log lines that the daemon's operators read: tag "DPM", coloured by their priority. `text` is a string literal, a
/// printf format for the arguments that follow it.
#define DPM_LOG(priority, colour, text, ...)                                                                    \
  __dlog_print(DLOG_BUFFER_MAIN, priority, "DPM", "%s: %s(%d) > " colour "DPM: " text "\033[0m", __FILE_NAME__, \
               __func__, __LINE__ __VA_OPT__(, ) __VA_ARGS__)

#define DPM_INFO(...) DPM_LOG(DLOG_INFO, "\033[36m", __VA_ARGS__)
#define DPM_WARNING(...) DPM_LOG(DLOG_WARN, "\033[33m", __VA_ARGS__)
#define DPM_ERROR(...) DPM_LOG(DLOG_ERROR, "\033[31m", __VA_ARGS__)
