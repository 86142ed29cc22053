#include "Verbs.h"

#include <CLI/CLI.hpp>
#include <array>
#include <limits>
#include <stdexcept>

#include "Times.h"

namespace zav::pyxctl {
namespace {

constexpr std::array kVerbs = {
    Verb{"state", "Show whether the feature is enabled", DeclareState},
    Verb{"logging", "Show whether threats are logged", DeclareLogging},
    Verb{"report", "Report a visit to a threatening URL", DeclareReport},
    Verb{"status", "Show the log's counters and settings", DeclareStatus},
    Verb{"log", "Show the records of the log", DeclareLog},
    Verb{"count", "Count the records of the log", DeclareCount},
    Verb{"reset", "Delete every record of the log", DeclareReset},
};

/// Adds an option whose text is made into a value, or refused, when the command line is read.
template <class Read>
CLI::Option* DeclareText(CLI::App& command, const char* name, const char* unit, const char* meaning, Read read) {
  const auto take = [name, read](const std::string& text) {
    try {
      read(text);
    } catch (const std::invalid_argument& error) {
      throw CLI::ValidationError(name, error.what());
    }
  };
  return command.add_option_function<std::string>(name, take, meaning)->type_name(unit);
}

}  // namespace

std::span<const Verb> Verbs() {
  return kVerbs;
}

void DeclareNumber(CLI::App& command, const char* name, std::int32_t& number, const char* unit, const char* meaning) {
  constexpr std::int32_t kLargest = std::numeric_limits<std::int32_t>::max();
  command.add_option(name, number, meaning)
      ->check(CLI::Range(std::int32_t{0}, kLargest).description(""))
      ->type_name(unit);
}

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

}  // namespace zav::pyxctl
