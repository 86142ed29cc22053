#include "pyx/PolicyHandler.h"

namespace zav::pyx {

// Initialised at compile time, and so before any other use.
constinit const policy::Handler PolicyHandler{common::PYXPlugin};

}  // namespace zav::pyx
