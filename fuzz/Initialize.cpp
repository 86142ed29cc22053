#include <dlog/control.h>
#include <dlog/dlog.h>

#include <cstdlib>

#include "Target.h"
#include "support/DeviceRootEntry.h"

int LLVMFuzzerInitialize(int* /*count*/, char*** arguments) {
  using namespace zav::test;
  const DeviceRoot root = CurrentDeviceRoot();
  if (root == DeviceRoot::kNone) std::exit(EnterDeviceRoot(*arguments, {ZAV_BUILD_DIRECTORY, ZAV_SOURCE_DIRECTORY}));
  if (root == DeviceRoot::kReal) {
    ClearDeviceRoot();
    std::atexit(ClearDeviceRoot);
  }
  // Millions of inputs write no line.
  dlog::SetLevel(DLOG_ERROR + 1);
  return 0;
}
