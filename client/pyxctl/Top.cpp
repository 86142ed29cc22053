#include <langinfo.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <iostream>
#include <map>
#include <memory>

#include "Options.h"
#include "QuitKey.h"
#include "Records.h"
#include "Selection.h"
#include "Text.h"
#include "Times.h"
#include "UrlHost.h"
#include "Verbs.h"

namespace zav::pyxctl {
namespace {

using pyxclient::Record;
using pyxclient::Time;

constexpr const char* kColumns[] = {"by", "name", "count"};

struct Asked {
  Selection selection;
  std::size_t lines = 10;
  double interval = 2;
  bool once = false;
};

using Counts = std::map<std::string, std::size_t>;
using Ranking = std::vector<std::pair<std::string, std::size_t>>;

struct Sums {
  std::size_t records = 0;
  /// Those that no answer can hold are not among them.
  std::size_t tooLarge = 0;
  Time first = pyxclient::kEnd;
  Time last = pyxclient::kBeginning;
  Counts threats;
  Counts hosts;
};

std::string HostOf(const Record& record) {
  const std::string host = UrlHost(record.url);
  return host.empty() ? "(none)" : host;
}

Sums Sum(pyxclient::Client& client, const Selection& selection) {
  Sums sums;
  pyxclient::Log log = client.Log({selection.range.from, selection.range.to});
  while (const auto record = NextThatFits(log, sums.tooLarge)) {
    if (!selection.HoldsText(*record)) continue;
    ++sums.records;
    sums.first = std::min(sums.first, record->time);
    sums.last = std::max(sums.last, record->time);
    ++sums.threats[record->threat];
    ++sums.hosts[HostOf(*record)];
  }
  return sums;
}

/// The greatest ones, those of one count by their names.
Ranking Ranked(const Counts& counts, std::size_t most) {
  Ranking ranking(counts.begin(), counts.end());
  std::stable_sort(ranking.begin(), ranking.end(),
                   [](const auto& one, const auto& other) { return one.second > other.second; });
  if (ranking.size() > most) ranking.resize(most);
  return ranking;
}

struct View {
  const char* title;
  const char* key;
  const char* by;
  Counts Sums::*counts;
};

constexpr std::array kViews = {View{"THREAT", "threats", "threat", &Sums::threats},
                               View{"HOST", "hosts", "host", &Sums::hosts}};

std::string Bar(std::size_t count, std::size_t greatest, std::size_t width) {
  static const char* const kBlock = std::strcmp(::nl_langinfo(CODESET), "UTF-8") == 0 ? "\u2588" : "#";
  std::string bar;
  for (std::size_t length = std::max<std::size_t>(width * count / greatest, 1); length > 0; --length) bar += kBlock;
  return bar;
}

void WriteRanking(std::ostream& out, const char* title, const Ranking& ranking, const Terminal& terminal) {
  constexpr std::size_t kNames = 32;
  constexpr std::size_t kNumbers = 7;
  constexpr std::size_t kUsualLine = 80;
  constexpr std::size_t kShortestBar = 8;
  const std::size_t line = terminal.width == 0 ? kUsualLine : terminal.width;
  const std::size_t names = std::min(kNames, line / 2);
  const std::size_t beside = names + kNumbers + 3;
  const std::size_t bars = std::max(line, beside + kShortestBar) - beside;
  out << '\n' << terminal.Painted(Colour::kBold, Padded(title, names) + "   COUNT") << '\n';
  for (const auto& [name, count] : ranking) {
    const std::string number = std::to_string(count);
    out << Padded(Shortened(Printable(name), names), names) << ' '
        << std::string(kNumbers - std::min(kNumbers, number.size()), ' ') << number << "  "
        << terminal.Painted(Colour::kRed, Bar(count, ranking.front().second, bars)) << '\n';
  }
}

void WriteSums(std::ostream& out, const Sums& sums, std::size_t lines, const Terminal& terminal) {
  if (sums.records == 0) {
    out << "no records\n";
    return;
  }
  out << sums.records << (sums.records == 1 ? " record, " : " records, ") << LocalText(sums.first) << " to "
      << LocalText(sums.last) << '\n';
  for (const View& view : kViews) WriteRanking(out, view.title, Ranked(sums.*view.counts, lines), terminal);
}

void Write(Output& output, const Sums& sums, std::size_t lines) {
  std::vector<Json::Value> rows;
  Json::Value document;
  document["records"] = static_cast<Json::UInt64>(sums.records);
  for (const View& view : kViews) {
    Json::Value& list = document[view.key] = Json::Value(Json::arrayValue);
    for (const auto& [name, count] : Ranked(sums.*view.counts, lines)) {
      Json::Value& member = list.append(Json::objectValue);
      member["name"] = name;
      member["count"] = static_cast<Json::UInt64>(count);
      rows.push_back(member);
      rows.back()["by"] = view.by;
    }
  }
  output.WriteRows(kColumns, rows, document,
                   [&](std::ostream& out) { WriteSums(out, sums, lines, output.terminal()); });
}

/// As many names of each as fit on the screen below their titles.
std::size_t LinesFor(const Terminal& terminal, std::size_t asked) {
  constexpr std::size_t kOtherLines = 6;
  if (terminal.height <= kOtherLines + kViews.size()) return asked;
  return std::min(asked, (terminal.height - kOtherLines) / kViews.size());
}

/// Shows it again and again until it is interrupted, or the key "q" is pressed.
ExitStatus Watch(Session& session, const Asked& asked) {
  constexpr const char* kHome = "\x1b[H\x1b[2J";
  QuitKey quit;
  do {
    const Sums sums = Sum(session.client, asked.selection);
    std::cout << kHome;
    // A window may have another size by now.
    Write(session.output, sums, LinesFor(TerminalOf(STDOUT_FILENO), asked.lines));
    if (!session.output.Flush()) return ExitStatus::kDone;
  } while (!quit.IsPressedWithin(std::chrono::duration<double>(asked.interval)));
  return ExitStatus::kDone;
}

}  // namespace

Action DeclareTop(CLI::App& command) {
  auto asked = std::make_shared<Asked>();
  DeclareSelection(command, asked->selection);
  DeclareNumber(command, "-n,--lines", asked->lines, "NUMBER", "Show the first so many of each", 1)
      ->capture_default_str();
  DeclareInterval(command, asked->interval, "How often to look again, on a terminal");
  command.add_flag("--once", asked->once, "Look once, on a terminal too");
  return [asked](Session& session) {
    const bool watches = session.output.format() == Format::kHuman && session.output.terminal().canMove;
    if (watches && !asked->once) return Watch(session, *asked);
    const Sums sums = Sum(session.client, asked->selection);
    Write(session.output, sums, asked->lines);
    ComplainOfTooLarge(sums.tooLarge);
    return ExitStatus::kDone;
  };
}

}  // namespace zav::pyxctl
