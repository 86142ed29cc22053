#include "Switch.h"

namespace zav::pyxctl {

Action DeclareState(CLI::App& /*command*/) {
  return ShowSwitch(&pyxclient::Client::IsEnabled, "The feature");
}

}  // namespace zav::pyxctl
