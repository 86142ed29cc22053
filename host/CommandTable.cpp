#include "CommandTable.h"

#include <algorithm>
#include <charconv>
#include <exception>
#include <iterator>
#include <utility>

namespace host {
namespace {

constexpr const char* kOk = "ok";
constexpr const char* kError = "error: ";
constexpr std::string_view kBlanks = " \t\r\n";

std::string_view Trim(std::string_view text) {
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

/// The first word and, trimmed, the rest.
std::pair<std::string_view, std::string_view> SplitWord(std::string_view text) {
  const size_t end = std::min(text.find_first_of(kBlanks), text.size());
  return {text.substr(0, end), Trim(text.substr(end))};
}

std::optional<int> ToInt(std::string_view text) {
  int value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

std::string Escape(char character) {
  constexpr char digits[] = "0123456789abcdef";
  switch (character) {
    case '\n':
      return "\\n";
    case '\r':
      return "\\r";
    case '\t':
      return "\\t";
    default:
      return {'\\', 'x', digits[(character >> 4) & 0xf], digits[character & 0xf]};
  }
}

/// A backslash stays as it is: JSON text without control characters, which is what a plug-in answers, goes unchanged.
std::string OneLine(std::string_view text) {
  std::string line;
  line.reserve(text.size());
  for (const char character : text) {
    // Whether a char has a sign is the machine's matter.
    const auto byte = static_cast<unsigned char>(character);
    const bool control = byte < ' ' || byte == 0x7f;
    control ? line.append(Escape(character)) : line.append(1, character);
  }
  return line;
}

}  // namespace

struct CommandTable::Command {
  std::string_view word;
  std::string_view usage;
  std::optional<std::string> (CommandTable::*run)(std::string_view arguments);
};

const CommandTable::Command CommandTable::kCommands[] = {
    {"set", "set N", &CommandTable::Set},        {"get", "get", &CommandTable::Get},
    {"apply", "apply N", &CommandTable::Apply},  {"exec", "exec COMMAND [JSON]", &CommandTable::Exec},
    {"reload", "reload", &CommandTable::Reload}, {"help", "help", &CommandTable::Help},
    {"quit", "quit", &CommandTable::Quit},
};

CommandTable::CommandTable(ProviderSource& providers) : source(providers) {}

std::optional<std::string> CommandTable::Run(std::string_view line) {
  const std::string_view command = Trim(line);
  if (command.empty()) return std::nullopt;
  try {
    return OneLine(Answer(command));
  } catch (const std::exception& error) {
    return OneLine(std::string(kError) + error.what());
  } catch (...) {
    return std::string(kError) + "unknown reason";
  }
}

std::vector<std::string> CommandTable::Words() {
  std::vector<std::string> words;
  std::transform(std::begin(kCommands), std::end(kCommands), std::back_inserter(words),
                 [](const Command& command) { return std::string(command.word); });
  return words;
}

std::string CommandTable::Answer(std::string_view line) {
  if (line.size() > kMaxLine) {
    return std::string(kError) + "the line is longer than " + std::to_string(kMaxLine) + " bytes";
  }
  const auto [word, arguments] = SplitWord(line);
  const auto command = std::find_if(std::begin(kCommands), std::end(kCommands),
                                    [word = word](const Command& candidate) { return candidate.word == word; });
  if (command == std::end(kCommands)) {
    return std::string(kError) + "unknown command [" + std::string(word) + "]; \"help\" lists the commands";
  }
  const std::optional<std::string> answer = (this->*command->run)(arguments);
  return answer ? *answer : std::string(kError) + "usage: " + std::string(command->usage);
}

std::optional<std::string> CommandTable::Set(std::string_view arguments) {
  const std::optional<int> status = ToInt(arguments);
  if (!status) return std::nullopt;
  return std::to_string(source.Provider().setStatus(*status));
}

std::optional<std::string> CommandTable::Get(std::string_view arguments) {
  if (!arguments.empty()) return std::nullopt;
  return std::to_string(source.Provider().getStatus());
}

std::optional<std::string> CommandTable::Apply(std::string_view arguments) {
  const std::optional<int> status = ToInt(arguments);
  if (!status) return std::nullopt;
  source.Provider().applyStatus(*status);
  return kOk;
}

std::optional<std::string> CommandTable::Exec(std::string_view arguments) {
  const auto [command, data] = SplitWord(arguments);
  if (command.empty()) return std::nullopt;
  std::string reply = source.Provider().executeCommand(std::string(command), std::string(data));
  if (reply.ends_with('\n')) reply.pop_back();
  return reply;
}

std::optional<std::string> CommandTable::Reload(std::string_view arguments) {
  if (!arguments.empty()) return std::nullopt;
  source.Reload();
  return kOk;
}

std::optional<std::string> CommandTable::Help(std::string_view arguments) {
  if (!arguments.empty()) return std::nullopt;
  std::string text;
  for (const Command& command : kCommands) {
    if (!text.empty()) text += " | ";
    text += command.usage;
  }
  return text;
}

std::optional<std::string> CommandTable::Quit(std::string_view arguments) {
  if (!arguments.empty()) return std::nullopt;
  quit = true;
  return kOk;
}

}  // namespace host
