#include <chrono>
#include <iomanip>
#include <memory>
#include <sstream>
#include <thread>

#include "Options.h"
#include "Verbs.h"

namespace zav::pyxctl {
namespace {

using std::chrono::steady_clock;
using Milliseconds = std::chrono::duration<double, std::milli>;

/// How often a service that is not there is looked for.
constexpr std::chrono::milliseconds kPause{50};

/// Asks once, and leaves the answer unused but for its coming: a service that takes connections and does not answer is
/// none.
Milliseconds Ask(pyxclient::Client& client) {
  const auto start = steady_clock::now();
  client.IsEnabled();
  return steady_clock::now() - start;
}

/// Asks until there is a service; what else goes wrong, and a service that has not come by then, is thrown.
Milliseconds Await(const pyxclient::Options& options) {
  const auto end = steady_clock::now() + options.timeout;
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - steady_clock::now());
    pyxclient::Options rest = options;
    rest.timeout = std::max(left, std::chrono::milliseconds(1));
    try {
      pyxclient::Client client(rest);
      return Ask(client);
    } catch (const pyxclient::Error& error) {
      if (error.failure() != pyxclient::Failure::kNoService || left <= kPause) throw;
    }
    std::this_thread::sleep_for(kPause);
  }
}

std::string InWords(Milliseconds time) {
  std::ostringstream words;
  words << std::fixed << std::setprecision(1) << time.count() << " ms";
  return words.str();
}

}  // namespace

Action DeclarePing(CLI::App& command) {
  auto waits = std::make_shared<bool>(false);
  command.add_flag("--wait", *waits, "Wait for the service to come, as long as --timeout says");
  return [waits](Session& session) {
    static constexpr const char* kColumns[] = {"alive", "milliseconds"};
    const Milliseconds time = *waits ? Await(session.options) : Ask(session.client);
    Json::Value row;
    row["alive"] = true;
    row["milliseconds"] = time.count();
    session.output.WriteRow(kColumns, row,
                            [&](std::ostream& out) { out << "The service answers (" << InWords(time) << ").\n"; });
    return ExitStatus::kDone;
  };
}

}  // namespace zav::pyxctl
