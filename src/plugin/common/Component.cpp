#include "common/Component.h"

namespace zav::common {

std::string ComponentName(const Component& component) {
  return component == PYXPlugin ? "PYXPlugin" : "";
}

}  // namespace zav::common
