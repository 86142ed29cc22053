#include "Verbs.h"

namespace zav::pyxctl {

Action DeclareState(CLI::App& /*command*/) {
  return [](pyxclient::Client& client, const Output& output) {
    Json::Value document;
    const bool enabled = client.IsEnabled();
    document["enabled"] = enabled;
    output.Write(document, [enabled](std::ostream& out) {
      out << "The feature is " << (enabled ? "enabled" : "disabled") << ".\n";
    });
  };
}

}  // namespace zav::pyxctl
