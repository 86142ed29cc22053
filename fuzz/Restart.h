#pragma once

#include <functional>

#include "pyx/State.h"

/// The plug-in's two singletons live as long as the process; a fuzzer's process outlives millions of inputs. Here they
/// end and are made anew, by their own constructors, in the place where they were. No other thread may use them
/// meanwhile. An exception from a constructor ends the process.
namespace zav::fuzz {

/// Ends the feature's state and loads it from what is stored, as the next start of the daemon does.
pyx::State& RestartState() noexcept;

/// Ends the policy manager, and with it the connection to the database, and makes it anew; the state with it.
/// @param between  called while the database is closed.
pyx::State& RestartAll(const std::function<void()>& between) noexcept;

}  // namespace zav::fuzz
