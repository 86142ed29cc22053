#pragma once

#include "Verbs.h"

namespace zav::pyxctl {

/// A verb that shows one switch of the service: what `ask` answers, for a person as `subject` and a word.
Action ShowSwitch(bool (pyxclient::Client::*ask)(), const char* subject);

}  // namespace zav::pyxctl
