#include "common/Log.h"

#include <dlog/dlog.h>

namespace zav::common {
namespace {

constexpr const char* kTag = "ZAV_PYX_PLUGIN";

}  // namespace

void PrintLine(Priority priority, const LogSite& site, const char* message) noexcept {
  __dlog_print(DLOG_BUFFER_SYSTEM, static_cast<int>(priority), kTag, "%s: %s(%d) > %s", site.unit, site.function,
               site.line, message);
}

}  // namespace zav::common
