#include "Switch.h"

namespace zav::pyxctl {

Action ShowSwitch(bool (pyxclient::Client::*ask)(), const char* subject) {
  return [ask, subject](Session& session) {
    static constexpr const char* kColumns[] = {"enabled"};
    const bool enabled = (session.client.*ask)();
    Json::Value row;
    row["enabled"] = enabled;
    session.output.WriteRow(kColumns, row, [&](std::ostream& out) {
      const Terminal& terminal = session.output.terminal();
      out << subject << " is "
          << (enabled ? terminal.Painted(Colour::kGreen, "enabled") : terminal.Painted(Colour::kRed, "disabled"))
          << ".\n";
    });
    return ExitStatus::kDone;
  };
}

}  // namespace zav::pyxctl
