#include <memory>

#include "Selection.h"
#include "Verbs.h"

namespace zav::pyxctl {

Action DeclareCount(CLI::App& command) {
  auto range = std::make_shared<TimeRange>();
  DeclareRange(command, *range);
  return [range](Session& session) {
    static constexpr const char* kColumns[] = {"count"};
    const std::int32_t count = session.client.Count(range->from, range->to);
    Json::Value row;
    row["count"] = count;
    session.output.WriteRow(
        kColumns, row, [count](std::ostream& out) { out << count << (count == 1 ? " record" : " records") << '\n'; });
    return ExitStatus::kDone;
  };
}

}  // namespace zav::pyxctl
