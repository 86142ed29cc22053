#pragma once

#include "Shim.h"

namespace zav::faults {

/// Counts a call of this thread. @return what it fails with, an error number or `kShort`; 0: it does not.
int Strike(Call call);

/// Whether this thread's calls are counted.
bool IsCounted();
/// Whether this thread's sleeps are to be short.
bool IsHurried();

}  // namespace zav::faults
