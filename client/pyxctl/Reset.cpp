#include "Verbs.h"

namespace zav::pyxctl {

Action DeclareReset(CLI::App& /*command*/) {
  return [](pyxclient::Client& client, const Output& output) {
    client.Reset();
    Json::Value document;
    document["reset"] = true;
    output.Write(document, [](std::ostream& out) { out << "The log is empty.\n"; });
  };
}

}  // namespace zav::pyxctl
