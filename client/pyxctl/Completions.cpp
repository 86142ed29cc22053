#include "Completions.h"

#include <CLI/CLI.hpp>
#include <algorithm>

#include "CommandLine.h"

namespace zav::pyxctl {
namespace {

using Words = std::vector<std::string>;

bool IsFlag(const CLI::Option& option) {
  return option.get_expected_max() == 0;
}

/// The option of that name that takes a value, of a verb or of all of them.
const CLI::Option* FindOptionWithValue(const std::vector<const CLI::App*>& commands, const std::string& name) {
  for (const CLI::App* command : commands) {
    const CLI::Option* const option = command->get_option_no_throw(name);
    if (option != nullptr && option->nonpositional() && !IsFlag(*option)) return option;
  }
  return nullptr;
}

const CLI::App* FindVerb(const CLI::App& program, const std::string& name) {
  const auto verbs = program.get_subcommands([&name](const CLI::App* each) { return each->get_name() == name; });
  return verbs.empty() ? nullptr : verbs.front();
}

/// The program, and the verb that stands behind it, if one does.
std::vector<const CLI::App*> CommandsOf(const CLI::App& program, const Words& words) {
  std::vector<const CLI::App*> commands = {&program};
  for (std::size_t at = 0; at + 1 < words.size() && commands.size() == 1; ++at) {
    if (FindOptionWithValue(commands, words[at]) != nullptr) {
      ++at;
    } else if (const CLI::App* const verb = FindVerb(program, words[at])) {
      commands.push_back(verb);
    }
  }
  return commands;
}

std::vector<Completion> Verbs(const CLI::App& program) {
  std::vector<Completion> verbs;
  for (const CLI::App* verb :
       program.get_subcommands([](const CLI::App* each) { return !each->get_group().empty(); })) {
    verbs.push_back({verb->get_name(), verb->get_description()});
  }
  return verbs;
}

std::vector<Completion> Options(const std::vector<const CLI::App*>& commands) {
  std::vector<Completion> options;
  for (const CLI::App* command : commands) {
    for (const CLI::Option* option : command->get_options()) {
      for (const std::string& name : option->get_snames()) options.push_back({'-' + name, option->get_description()});
      for (const std::string& name : option->get_lnames()) options.push_back({"--" + name, option->get_description()});
    }
  }
  return options;
}

/// The values of an option that takes one of a few words.
std::vector<Completion> Values(const CLI::Option& option) {
  std::vector<Completion> values;
  if (option.get_type_name() == kFormatUnit) {
    for (const auto& [name, format] : FormatNames()) values.push_back({name, ""});
  }
  return values;
}

/// "--output=js": the values of the option before the sign, with it.
std::vector<Completion> ValuesBehindSign(const std::vector<const CLI::App*>& commands, const std::string& word) {
  const std::string name = word.substr(0, word.find('='));
  const CLI::Option* const option = FindOptionWithValue(commands, name);
  if (option == nullptr) return {};
  std::vector<Completion> values = Values(*option);
  for (Completion& each : values) each.word = name + '=' + each.word;
  return values;
}

std::vector<Completion> Candidates(const CLI::App& program, const Words& words) {
  // Behind that there are no options and no verbs.
  if (std::find(words.begin(), words.end() - 1, "--") != words.end() - 1) return {};
  const auto commands = CommandsOf(program, words);
  if (words.back().starts_with("--") && words.back().find('=') != std::string::npos) {
    return ValuesBehindSign(commands, words.back());
  }
  const CLI::Option* const valued = words.size() < 2 ? nullptr : FindOptionWithValue(commands, words[words.size() - 2]);
  if (valued != nullptr) return Values(*valued);
  if (words.back().starts_with('-')) return Options(commands);
  return commands.size() == 1 ? Verbs(program) : std::vector<Completion>();
}

}  // namespace

std::vector<Completion> CompletionsOf(const Words& words) {
  if (words.empty()) return {};
  std::vector<Completion> completions;
  ShowCommandLine([&](const CLI::App& program) { completions = Candidates(program, words); });
  std::erase_if(completions, [&words](const Completion& each) { return !each.word.starts_with(words.back()); });
  return completions;
}

}  // namespace zav::pyxctl
