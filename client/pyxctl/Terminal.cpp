#include "Terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <string_view>

namespace zav::pyxctl {
namespace {

constexpr std::array kSequences = {"\x1b[1m", "\x1b[31m", "\x1b[32m", "\x1b[33m", "\x1b[2m"};
constexpr const char* kPlain = "\x1b[0m";

std::string_view Variable(const char* name) {
  const char* const value = std::getenv(name);
  return value == nullptr ? std::string_view() : std::string_view(value);
}

}  // namespace

std::string Terminal::Painted(Colour colour, const std::string& text) const {
  return hasColours ? kSequences[static_cast<std::size_t>(colour)] + text + kPlain : text;
}

Terminal TerminalOf(int fd) {
  Terminal terminal;
  terminal.isTerminal = ::isatty(fd) == 1;
  if (!terminal.isTerminal) return terminal;
  const std::string_view kind = Variable("TERM");
  terminal.canMove = !kind.empty() && kind != "dumb";
  terminal.hasColours = terminal.canMove && Variable("NO_COLOR").empty();
  winsize size{};
  if (::ioctl(fd, TIOCGWINSZ, &size) == 0) {
    terminal.width = size.ws_col;
    terminal.height = size.ws_row;
  }
  return terminal;
}

}  // namespace zav::pyxctl
