#include "Console.h"

#include <poll.h>

#include <cerrno>
#include <iterator>
#include <optional>
#include <string>
#include <system_error>

namespace host {

Console::Console(LineSource& source, CommandTable& table, const Signals& signalsToWaitFor,
                 ServiceManager& serviceManager, bool serveOn, std::FILE* stream)
    : input(source),
      commands(table),
      signals(signalsToWaitFor),
      manager(serviceManager),
      serve(serveOn),
      output(stream) {}

void Console::Run() {
  input.Prompt();
  while (!commands.ended()) {
    if (!serve && !input.HasNext() && input.descriptor() == -1) return;
    manager.GiveSignOfLife();
    const Wake wake = Wait();
    if (wake.signal) return;
    if (input.HasNext()) {
      Answer();
    } else if (wake.input) {
      input.Read();
    }
  }
}

Console::Wake Console::Wait() const {
  pollfd files[] = {{input.descriptor(), POLLIN, 0}, {signals.descriptor(), POLLIN, 0}};
  const int ready = poll(files, std::size(files), input.HasNext() ? 0 : manager.MayWaitMs());
  if (ready < 0 && errno != EINTR) throw std::system_error(errno, std::generic_category(), "can't wait for commands");
  return ready > 0 ? Wake{files[0].revents != 0, files[1].revents != 0} : Wake{false, false};
}

void Console::Answer() {
  const std::optional<std::string> answer = commands.Run(input.Next());
  if (answer) {
    const bool written = std::fwrite(answer->data(), 1, answer->size(), output) == answer->size();
    if (!written || std::fputc('\n', output) == EOF || std::fflush(output) != 0) {
      throw std::system_error(errno, std::generic_category(), "can't write the answer");
    }
  }
  if (!commands.ended()) input.Prompt();
}

}  // namespace host
