#include <algorithm>
#include <memory>

#include "Follow.h"
#include "Options.h"
#include "Records.h"
#include "Selection.h"
#include "Verbs.h"

namespace zav::pyxctl {
namespace {

using pyxclient::Record;

struct Asked {
  Selection selection;
  /// The newest so many; 0 for all.
  std::size_t lines = 0;
  std::optional<std::int32_t> startIndex;
  bool reverse = false;
  bool follow = false;
};

/// The records in the order that was asked for. The newest ones are looked for from the newest on.
std::vector<Record> Read(pyxclient::Client& client, const Asked& asked) {
  const bool isBackward = asked.reverse || asked.lines > 0;
  std::vector<Record> records;
  pyxclient::Log log =
      client.Log({asked.selection.range.from, asked.selection.range.to, 0, asked.startIndex, isBackward});
  std::size_t tooLarge = 0;
  while (asked.lines == 0 || records.size() < asked.lines) {
    auto record = NextThatFits(log, tooLarge);
    if (!record) break;
    if (asked.selection.HoldsText(*record)) records.push_back(std::move(*record));
  }
  ComplainOfTooLarge(tooLarge);
  if (isBackward != asked.reverse) std::reverse(records.begin(), records.end());
  return records;
}

Following FollowingOf(const Asked& asked) {
  Following following;
  following.selection = asked.selection;
  if (asked.lines > 0) following.lines = asked.lines;
  return following;
}

}  // namespace

Action DeclareLog(CLI::App& command) {
  auto asked = std::make_shared<Asked>();
  DeclareSelection(command, asked->selection);
  CLI::Option* const lines =
      DeclareNumber(command, "-n,--lines", asked->lines, "NUMBER", "Show the newest so many (default: all)", 1);
  CLI::Option* const start =
      DeclareNumber(command, "--start", asked->startIndex, "INDEX", "Start at the record of this index")
          ->excludes(lines);
  CLI::Option* const reverse = command.add_flag("-r,--reverse", asked->reverse, "Show the newest record first");
  command.add_flag("-f,--follow", asked->follow, "Go on with new records as they come, as follow does")
      ->excludes(start)
      ->excludes(reverse);
  return [asked](Session& session) {
    if (asked->follow) return Follow(session, FollowingOf(*asked));
    const std::vector<Record> records = Read(session.client, *asked);
    Json::Value document;
    Json::Value& list = document["records"] = Json::Value(Json::arrayValue);
    std::vector<Json::Value> rows;
    std::transform(records.begin(), records.end(), std::back_inserter(rows), RowOf);
    for (const Json::Value& row : rows) list.append(row);
    session.output.Page();
    session.output.WriteRows(kRecordColumns, rows, document,
                             [&](std::ostream& out) { WriteRecords(out, records, session.output.terminal()); });
    return ExitStatus::kDone;
  };
}

}  // namespace zav::pyxctl
