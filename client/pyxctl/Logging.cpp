#include "Verbs.h"

namespace zav::pyxctl {

Action DeclareLogging(CLI::App& /*command*/) {
  return [](pyxclient::Client& client, const Output& output) {
    Json::Value document;
    const bool enabled = client.IsLogging();
    document["enabled"] = enabled;
    output.Write(document,
                 [enabled](std::ostream& out) { out << "Logging is " << (enabled ? "enabled" : "disabled") << ".\n"; });
  };
}

}  // namespace zav::pyxctl
