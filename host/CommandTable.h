#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ProviderSource.h"

namespace host {

/// The commands that the host takes, one a line. One thread.
///
/// | line                  | does                                     | answer                     |
/// |-----------------------|------------------------------------------|----------------------------|
/// | `set N`               | applies the status N and records it      | the provider's result      |
/// | `get`                 | reads the recorded status                | the status                 |
/// | `apply N`             | applies the status N without a record    | `ok`                       |
/// | `exec COMMAND [JSON]` | runs a command of the plug-in            | the plug-in's reply        |
/// | `reload`              | ends the plug-in and loads it again      | `ok`                       |
/// | `help`                | lists the commands                       | all of them on one line    |
/// | `quit`                | ends the host                            | `ok`                       |
///
/// Blanks around a word count for nothing; what follows exec's COMMAND is passed on as it stands.
class CommandTable {
 public:
  /// The longest line in bytes.
  static constexpr size_t kMaxLine = size_t{1024} * 1024;

  /// @param source  where the provider comes from; it must outlive the table.
  explicit CommandTable(ProviderSource& source);

  /// Runs one line.
  ///
  /// @return the answer, one line without its end: control characters in it are written as \n, \r, \t or \xNN, and
  ///         one newline at the end of a plug-in's reply is left out. What went wrong, an exception of the plug-in
  ///         included, answers "error: " and why. Nothing for a blank line.
  std::optional<std::string> Run(std::string_view line);

  /// Whether `quit` was run.
  bool ended() const { return quit; }

  /// The first words of all commands.
  static std::vector<std::string> Words();

 private:
  struct Command;
  static const Command kCommands[];

  std::string Answer(std::string_view line);

  /// Each takes what follows its word; nothing means that this is not what it takes.
  std::optional<std::string> Set(std::string_view arguments);
  std::optional<std::string> Get(std::string_view arguments);
  std::optional<std::string> Apply(std::string_view arguments);
  std::optional<std::string> Exec(std::string_view arguments);
  std::optional<std::string> Reload(std::string_view arguments);
  std::optional<std::string> Help(std::string_view arguments);
  std::optional<std::string> Quit(std::string_view arguments);

  ProviderSource& source;
  bool quit = false;
};

}  // namespace host
