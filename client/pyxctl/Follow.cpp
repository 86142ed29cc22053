#include "Follow.h"

#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <deque>
#include <limits>
#include <memory>

#include "Options.h"
#include "Reading.h"
#include "Records.h"
#include "Verbs.h"

namespace zav::pyxctl {
namespace {

using pyxclient::Record;

/// How many records are shown of those that were there before, for a person to see where they are.
constexpr std::size_t kUsualLines = 10;
constexpr std::size_t kAll = std::numeric_limits<std::size_t>::max();

class Follower {
 public:
  Follower(Session& session, const Following& asked)
      : session_(session), asked_(asked), reading_(session.client, asked.selection, asked.cursorPath) {
    session.output.BeginRows(kRecordColumns);
  }

  /// Ends where the output does.
  ExitStatus Run() {
    // What is there already: a cursor file asks for all of it.
    std::size_t most = asked_.lines.value_or(asked_.cursorPath.empty() ? kUsualLines : kAll);
    do {
      if (!Show(most)) return ExitStatus::kLocalFailure;
      if (answers_) most = kAll;
    } while (Wait());
    return ExitStatus::kDone;
  }

 private:
  /// Writes the newest `most` of the records that have come; whether it could.
  bool Show(std::size_t most) {
    std::deque<Record> newest;
    while (const auto record = Next()) {
      if (most == kAll) {
        Write(*record);
        continue;
      }
      newest.push_back(*record);
      if (newest.size() > most) newest.pop_front();
    }
    reading_.Complain();
    for (const Record& record : newest) Write(record);
    if (!session_.output.Flush()) {
      Complain("the output cannot be written; check where it goes");
      return false;
    }
    reading_.Keep();
    return true;
  }

  void Write(const Record& record) {
    session_.output.AddRow(kRecordColumns, RowOf(record),
                           [&](std::ostream& out) { WriteRecord(out, record, session_.output.terminal()); });
  }

  /// A service that does not answer is waited for: it is said once that it went, and once that it is back.
  std::optional<Record> Next() try {
    auto record = reading_.Next();
    if (!answers_) Complain("the service answers again");
    answers_ = true;
    return record;
  } catch (const pyxclient::Error& error) {
    if (error.failure() == pyxclient::Failure::kSystem) throw;
    if (answers_) Complain(std::string(error.what()) + "; going on when it answers");
    answers_ = false;
    return std::nullopt;
  }

  /// Whether there is still somebody who reads.
  bool Wait() const {
    // Without any event that is asked for, it ends early only when the reader of a pipe is gone.
    pollfd output{STDOUT_FILENO, 0, 0};
    const int milliseconds = static_cast<int>(std::lround(asked_.interval * 1000));
    return ::poll(&output, 1, milliseconds) != 1 || (output.revents & (POLLERR | POLLHUP)) == 0;
  }

  Session& session_;
  const Following& asked_;
  Reading reading_;
  bool answers_ = true;
};

}  // namespace

ExitStatus Follow(Session& session, const Following& asked) {
  return Follower(session, asked).Run();
}

Action DeclareFollow(CLI::App& command) {
  auto asked = std::make_shared<Following>();
  DeclareSelection(command, asked->selection);
  DeclareNumber(command, "-n,--lines", asked->lines, "NUMBER",
                "Show the newest so many of those that are there already (default: 10, all with a cursor file)");
  command.add_option("--cursor-file", asked->cursorPath, "Go on where that file says, and remember it there")
      ->type_name("FILE");
  DeclareInterval(command, asked->interval, "How often to look");
  return [asked](Session& session) { return Follow(session, *asked); };
}

}  // namespace zav::pyxctl
