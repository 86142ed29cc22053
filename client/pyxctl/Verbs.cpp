#include "Verbs.h"

#include <CLI/CLI.hpp>
#include <array>
#include <limits>

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
  DeclareNumber(command, "--from", range.from, "SECONDS", "The first second, since the epoch (default: the beginning)");
  DeclareNumber(command, "--to", range.to, "SECONDS", "The last second, since the epoch (default: no end)");
}

}  // namespace zav::pyxctl
