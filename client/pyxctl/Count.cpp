#include <memory>

#include "Records.h"
#include "Selection.h"
#include "Verbs.h"

namespace zav::pyxctl {
namespace {

/// The service counts what lies in a range by itself; what else it is asked for has to be looked at.
std::int64_t Count(pyxclient::Client& client, const Selection& selection) {
  if (!selection.LooksAtText()) return client.Count(selection.range.from, selection.range.to);
  std::int64_t count = 0;
  std::size_t tooLarge = 0;
  pyxclient::Log log = client.Log({selection.range.from, selection.range.to});
  while (const auto record = NextThatFits(log, tooLarge)) {
    if (selection.HoldsText(*record)) ++count;
  }
  ComplainOfTooLarge(tooLarge);
  return count;
}

}  // namespace

Action DeclareCount(CLI::App& command) {
  auto selection = std::make_shared<Selection>();
  DeclareSelection(command, *selection);
  return [selection](Session& session) {
    static constexpr const char* kColumns[] = {"count"};
    const std::int64_t count = Count(session.client, *selection);
    Json::Value row;
    row["count"] = static_cast<Json::Int64>(count);
    session.output.WriteRow(
        kColumns, row, [count](std::ostream& out) { out << count << (count == 1 ? " record" : " records") << '\n'; });
    return ExitStatus::kDone;
  };
}

}  // namespace zav::pyxctl
