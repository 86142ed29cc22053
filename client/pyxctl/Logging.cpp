#include "Switch.h"

namespace zav::pyxctl {

Action DeclareLogging(CLI::App& /*command*/) {
  return ShowSwitch(&pyxclient::Client::IsLogging, "Logging");
}

}  // namespace zav::pyxctl
