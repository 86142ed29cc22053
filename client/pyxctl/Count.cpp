#include <memory>

#include "Verbs.h"

namespace zav::pyxctl {

Action DeclareCount(CLI::App& command) {
  auto range = std::make_shared<TimeRange>();
  DeclareRange(command, *range);
  return [range](pyxclient::Client& client, const Output& output) {
    const std::int32_t count = client.Count(range->from, range->to);
    Json::Value document;
    document["count"] = count;
    output.Write(document,
                 [count](std::ostream& out) { out << count << (count == 1 ? " record" : " records") << '\n'; });
  };
}

}  // namespace zav::pyxctl
