#include <memory>

#include "Options.h"
#include "Progress.h"
#include "Reading.h"
#include "Records.h"
#include "Verbs.h"

namespace zav::pyxctl {
namespace {

struct Asked {
  Selection selection;
  std::string cursorPath;
};

/// Written out and remembered so many at a time: what is cut short is repeated from there.
constexpr std::size_t kBatch = 1000;

bool Settle(Output& output, Reading& reading) {
  if (!output.Flush()) return false;
  reading.Keep();
  return true;
}

/// How many there will be, for the bar alone: where that cannot be told, or is refused, the records may be had all the
/// same.
std::size_t CountFor(pyxclient::Client& client, const Asked& asked) {
  if (asked.selection.LooksAtText() || !asked.cursorPath.empty()) return 0;
  try {
    return static_cast<std::size_t>(client.Count(asked.selection.range.from, asked.selection.range.to));
  } catch (const pyxclient::Error& error) {
    if (error.failure() != pyxclient::Failure::kRejected) throw;
    return 0;
  }
}

/// What was written out before a request failed needs no second run.
std::optional<pyxclient::Record> NextOf(Reading& reading, Output& output) {
  try {
    return reading.Next();
  } catch (const pyxclient::Error&) {
    Settle(output, reading);
    throw;
  }
}

ExitStatus Export(Session& session, const Asked& asked) {
  Reading reading(session.client, asked.selection, asked.cursorPath);
  Progress progress(CountFor(session.client, asked));
  session.output.BeginRows(kRecordColumns);
  std::size_t count = 0;
  while (const auto record = NextOf(reading, session.output)) {
    session.output.AddRow(kRecordColumns, RowOf(*record),
                          [&](std::ostream& out) { WriteRecord(out, *record, session.output.terminal()); });
    progress.Advance();
    if (++count % kBatch == 0 && !Settle(session.output, reading)) break;
  }
  reading.Complain();
  // What cannot be written is said at the program's end.
  Settle(session.output, reading);
  return ExitStatus::kDone;
}

}  // namespace

Action DeclareExport(CLI::App& command) {
  auto asked = std::make_shared<Asked>();
  DeclareSelection(command, asked->selection);
  command.add_option("--cursor-file", asked->cursorPath, "Only what came since the run that left that file")
      ->type_name("FILE");
  return [asked](Session& session) { return Export(session, *asked); };
}

}  // namespace zav::pyxctl
