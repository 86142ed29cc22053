// The manual page tells of every verb and option that there is, and of no other.

#include <gmock/gmock.h>

#include <CLI/CLI.hpp>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>

#include "CommandLine.h"

namespace zav::client::test {
namespace {

std::string Page() {
  std::ifstream file(ZAV_PYXCTL_PAGE);
  return {std::istreambuf_iterator<char>(file), {}};
}

/// What stands between two headings, or a list's points.
std::string Between(const std::string& text, const std::string& begin, const std::string& end) {
  const auto from = text.find(begin);
  if (from == std::string::npos) return {};
  return text.substr(from, text.find(end, from + begin.size()) - from);
}

std::set<std::string> LongOptionsOf(const std::string& text) {
  const std::string begin = "`--";
  std::set<std::string> names;
  for (auto at = text.find(begin); at != std::string::npos; at = text.find(begin, at + 1)) {
    const auto name = at + begin.size();
    // What separates options from what follows them has no name.
    if (const auto end = text.find('`', name); end > name) names.insert(text.substr(name, end - name));
  }
  return names;
}

/// Words with one blank between them.
std::string OnOneLine(const std::string& text) {
  std::istringstream stream(text);
  std::string line;
  for (std::string word; stream >> word;) line += (line.empty() ? "" : " ") + word;
  return line;
}

std::set<std::string> LongOptionsOf(const CLI::App& command) {
  std::set<std::string> names;
  for (const CLI::Option* option : command.get_options()) {
    names.insert(option->get_lnames().begin(), option->get_lnames().end());
  }
  return names;
}

TEST(TheManualPage, TellsTheOptionsOfTheProgram) {
  pyxctl::ShowCommandLine([](const CLI::App& program) {
    EXPECT_EQ(LongOptionsOf(Between(Page(), "\n## Options\n", "\n## ")), LongOptionsOf(program));
  });
}

TEST(TheManualPage, TellsEveryVerbWithItsOptions) {
  const std::string page = Page();
  const std::set<std::string> selecting = LongOptionsOf(Between(page, "\n## Selecting records\n", "\nA time is"));
  EXPECT_EQ(selecting, (std::set<std::string>{"since", "until", "last", "threat", "grep"}));
  const std::string verbs = Between(page, "\n## Verbs\n", "\n## ");
  pyxctl::ShowCommandLine([&](const CLI::App& program) {
    for (const CLI::App* verb :
         program.get_subcommands([](const CLI::App* each) { return !each->get_group().empty(); })) {
      const std::string point = Between(verbs, "\n- **" + verb->get_name() + "**", "\n- **");
      EXPECT_NE(point, "") << verb->get_name();
      std::set<std::string> told = LongOptionsOf(point);
      if (OnOneLine(point).find("selects records as below") != std::string::npos) {
        told.insert(selecting.begin(), selecting.end());
      }
      std::set<std::string> declared = LongOptionsOf(*verb);
      // Those of the program are told once.
      declared.erase("help");
      for (const char* const common : {"output", "timeout", "socket"}) told.erase(common);
      EXPECT_EQ(told, declared) << verb->get_name();
    }
  });
}

}  // namespace
}  // namespace zav::client::test
