#pragma once

#include <deque>
#include <string>
#include <vector>

#include "LineSource.h"

namespace host {

/// Lines that a person types, with a prompt, line editing, a history, and completion of the first word. There is one
/// at a time: the line editor and the character set, which it takes from the environment, are the process's.
///
/// A key may send several bytes; `Read` waits for the rest of one that has begun, as after a lone Escape.
class TerminalSource : public LineSource {
 public:
  /// @param prompt  what stands before each line.
  /// @param words   what the first word of a line is completed to.
  TerminalSource(std::string prompt, std::vector<std::string> words);
  /// Gives the terminal back as it was.
  ~TerminalSource() override;

  int descriptor() const override;
  void Read() override;
  bool HasNext() const override;
  std::string Next() override;
  void Prompt() override;

 private:
  static void TakeLine(char* text);
  static char** Complete(const char* text, int start, int end);
  static char* NextMatch(const char* text, int state);

  void End();

  static TerminalSource* instance;

  std::string prompt;
  std::vector<std::string> words;
  std::deque<std::string> lines;
  // The editor has the terminal from the prompt to the end of the line.
  bool prompting = false;
  bool ended = false;
};

}  // namespace host
