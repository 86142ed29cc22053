#include "Selection.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <stdexcept>

#include "Options.h"
#include "Times.h"

namespace zav::pyxctl {

void DeclareRange(CLI::App& command, TimeRange& range) {
  const auto now = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
  CLI::Option* const since = DeclareText(command, "--since", "TIME",
                                         "What came at that time or later: '2026-11-20 14:00', yesterday, 1h, @SECONDS",
                                         [&range, now](const std::string& text) { range.from = ParseTime(text, now); });
  DeclareText(command, "--until", "TIME", "What came at that time or earlier",
              [&range, now](const std::string& text) { range.to = ParseTime(text, now); });
  DeclareText(command, "--last", "PERIOD", "What came since then: 90s, 1h, '2 days'",
              [&range, now](const std::string& text) { range.from = now - ParsePeriod(text); })
      ->excludes(since);
}

void Pattern::Free::operator()(regex_t* expression) const {
  ::regfree(expression);
  delete expression;
}

Pattern::Pattern(const std::string& text) {
  if (text.find('\0') != std::string::npos) throw std::invalid_argument("a zero byte cannot be looked for");
  const bool hasUpperCase = std::any_of(text.begin(), text.end(), [](unsigned char c) { return std::isupper(c) != 0; });
  auto expression = std::make_unique<regex_t>();
  const int error =
      ::regcomp(expression.get(), text.c_str(), REG_EXTENDED | REG_NOSUB | (hasUpperCase ? 0 : REG_ICASE));
  if (error != 0) {
    std::array<char, 128> message{};
    ::regerror(error, expression.get(), message.data(), message.size());
    throw std::invalid_argument("'" + text + "' is no regular expression: " + message.data());
  }
  expression_.reset(expression.release());
}

bool Pattern::IsIn(const std::string& text) const {
  regmatch_t whole{0, static_cast<regoff_t>(text.size())};
  return ::regexec(expression_.get(), text.data(), 1, &whole, REG_STARTEND) == 0;
}

bool Selection::LooksAtText() const {
  return !threats.empty() || pattern != nullptr;
}

bool Selection::HoldsText(const pyxclient::Record& record) const {
  const bool isNamed = threats.empty() || std::find(threats.begin(), threats.end(), record.threat) != threats.end();
  return isNamed && (pattern == nullptr || pattern->IsIn(record.url) || pattern->IsIn(record.threat));
}

bool Selection::Holds(const pyxclient::Record& record) const {
  return range.from <= record.time && record.time <= range.to && HoldsText(record);
}

void DeclareSelection(CLI::App& command, Selection& selection) {
  DeclareRange(command, selection.range);
  command.add_option("--threat", selection.threats, "Only that kind of threat; may be given more than once")
      ->type_name("NAME")
      ->expected(1)
      ->take_all();
  DeclareText(command, "--grep", "REGEX",
              "Only what matches in its URL or threat; a pattern without capitals ignores case",
              [&selection](const std::string& text) { selection.pattern = std::make_shared<Pattern>(text); });
}

}  // namespace zav::pyxctl
