#include "TerminalSource.h"

#include <poll.h>
#include <unistd.h>

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include <editline/readline.h>

namespace host {
namespace {

constexpr int kHistorySize = 500;

bool HungUp() {
  pollfd terminal{STDIN_FILENO, POLLIN, 0};
  return poll(&terminal, 1, 0) > 0 && (terminal.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0;
}

}  // namespace

TerminalSource* TerminalSource::instance = nullptr;

TerminalSource::TerminalSource(std::string text, std::vector<std::string> completions)
    : prompt(std::move(text)), words(std::move(completions)) {
  instance = this;
  // The editor reads characters, and which bytes make one is the locale's matter.
  std::setlocale(LC_CTYPE, "");
  rl_initialize();
  rl_attempted_completion_function = Complete;
  using_history();
  stifle_history(kHistorySize);
}

TerminalSource::~TerminalSource() {
  End();
  instance = nullptr;
}

int TerminalSource::descriptor() const {
  return ended ? -1 : STDIN_FILENO;
}

void TerminalSource::Read() {
  // The editor takes a lost terminal for a key that is yet to come.
  if (HungUp()) return End();
  rl_callback_read_char();
}

bool TerminalSource::HasNext() const {
  return !lines.empty();
}

std::string TerminalSource::Next() {
  std::string line = std::move(lines.front());
  lines.pop_front();
  return line;
}

void TerminalSource::Prompt() {
  if (ended) return;
  rl_callback_handler_install(prompt.c_str(), TakeLine);
  prompting = true;
}

void TerminalSource::End() {
  if (prompting) {
    rl_callback_handler_remove();
    std::fputc('\n', stdout);
    std::fflush(stdout);
  }
  prompting = false;
  ended = true;
}

void TerminalSource::TakeLine(char* text) {
  const std::unique_ptr<char, decltype(&std::free)> owned(text, std::free);
  if (text == nullptr) return instance->End();
  if (*text != '\0') add_history(text);
  instance->lines.emplace_back(text);
}

char** TerminalSource::Complete(const char* text, int start, int /*end*/) {
  // Without this the editor would offer the names of files.
  rl_attempted_completion_over = 1;
  return start == 0 ? rl_completion_matches(text, NextMatch) : nullptr;
}

/// The editor frees what it is given, and begins with `state` 0.
char* TerminalSource::NextMatch(const char* text, int state) {
  static size_t next;
  if (state == 0) next = 0;
  while (next < instance->words.size()) {
    const std::string& word = instance->words[next++];
    if (word.starts_with(text)) return strdup(word.c_str());
  }
  return nullptr;
}

}  // namespace host
