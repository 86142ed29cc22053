#pragma once

#include "policy/Handler.h"

namespace zav::pyx {

/// The plug-in's policies: "State", "Storage" and "Service".
extern const policy::Handler PolicyHandler;

}  // namespace zav::pyx
