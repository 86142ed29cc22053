#pragma once

#include <string>

#include "pyx/State.h"
#include "support/LogModel.h"

/// Comparisons of the plug-in's log with the model's. One that fails ends the process.
namespace zav::fuzz {

using test::LogContent;
using test::LogFinding;
using test::LogModel;

/// Starts the state, with nothing but the three policies in the database, and the clock at its beginning.
/// @param storage  the text of the "Storage" policy.
/// @param logging  the text of the logging switch.
pyx::State& Start(const std::string& storage, const std::string& logging);

/// Checks a stored log.
void CheckContent(const LogContent& content, const LogModel& model);

/// Checks that the state holds what the model holds, and that the database holds the same: saves the storage.
/// @param wasSaved  whether the last save before this one succeeded, so that this one changes nothing.
void CheckAgreement(pyx::State& state, const LogModel& model, bool wasSaved = true);

/// Checks what a query found.
void CheckFinding(const pyx::LogSlice& slice, const LogFinding& expected, const char* property);

}  // namespace zav::fuzz
