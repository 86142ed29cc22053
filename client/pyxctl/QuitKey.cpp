#include "QuitKey.h"

#include <poll.h>
#include <signal.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <string_view>

namespace zav::pyxctl {
namespace {

using Clock = std::chrono::steady_clock;

termios usual;
termios watched;

constexpr std::array kEndingSignals = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

/// Everything that it calls may be called in a handler.
void Restore(int number) {
  ::tcsetattr(STDIN_FILENO, TCSANOW, &usual);
  if (number != SIGTSTP) {
    // The usual end comes with the end of this handler.
    ::raise(number);
    return;
  }
  ::raise(SIGSTOP);
  ::tcsetattr(STDIN_FILENO, TCSANOW, &watched);
}

void RestoreAt(int number, int flags) {
  struct sigaction action {};
  action.sa_handler = Restore;
  action.sa_flags = flags;
  struct sigaction before {};
  // A signal that is ignored stays so, as under nohup.
  if (::sigaction(number, nullptr, &before) == 0 && before.sa_handler != SIG_IGN) ::sigaction(number, &action, nullptr);
}

bool IsAtATerminal() {
  return ::isatty(STDIN_FILENO) == 1 && ::tcgetpgrp(STDIN_FILENO) == ::getpgrp() &&
         ::tcgetattr(STDIN_FILENO, &usual) == 0;
}

/// Whether more keys may come; `isPressed` where the one that is looked for is among those that have.
bool ReadKeys(bool& isPressed) {
  std::array<char, 64> keys{};
  const ssize_t size = ::read(STDIN_FILENO, keys.data(), keys.size());
  if (size <= 0) return false;
  isPressed = std::string_view(keys.data(), static_cast<std::size_t>(size)).find_first_of("qQ") != std::string::npos;
  return true;
}

}  // namespace

QuitKey::QuitKey() : isThere_(IsAtATerminal()) {
  if (!isThere_) return;
  watched = usual;
  watched.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
  watched.c_cc[VMIN] = 1;
  watched.c_cc[VTIME] = 0;
  for (const int number : kEndingSignals) RestoreAt(number, static_cast<int>(SA_RESETHAND));
  RestoreAt(SIGTSTP, SA_RESTART);
  ::tcsetattr(STDIN_FILENO, TCSANOW, &watched);
}

QuitKey::~QuitKey() {
  if (isThere_) ::tcsetattr(STDIN_FILENO, TCSANOW, &usual);
}

bool QuitKey::IsPressedWithin(std::chrono::duration<double> time) {
  using std::chrono::milliseconds;
  const auto end = Clock::now() + std::chrono::duration_cast<Clock::duration>(time);
  for (bool mayCome = isThere_, isPressed = false;;) {
    const auto left = std::chrono::ceil<milliseconds>(end - Clock::now());
    if (left <= milliseconds(0)) return false;
    pollfd input{mayCome ? STDIN_FILENO : -1, POLLIN, 0};
    if (::poll(&input, 1, static_cast<int>(left.count())) != 1) continue;
    mayCome = ReadKeys(isPressed);
    if (isPressed) return true;
  }
}

}  // namespace zav::pyxctl
