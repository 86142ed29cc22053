#pragma once

#include "Scenarios.h"

namespace zav::test {

/// Looks, when nothing fails any more, at all that must hold whatever failed: what was acknowledged is stored, the
/// service takes requests, switching off ends, nothing is left open, both files of the database are whole. Ends with
/// the plug-in unloaded.
///
/// @param keptWhenOff  how many descriptors a plug-in keeps while it is off that met no fault.
void CheckAll(Session& session, size_t keptWhenOff);

}  // namespace zav::test
