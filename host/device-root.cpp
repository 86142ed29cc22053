// device-root: runs a command on a device root of its own.

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>
#include <string_view>

#include "DeviceRoot.h"

namespace {

constexpr int kFailed = 125;
constexpr int kNotRunnable = 126;
constexpr int kNotFound = 127;

constexpr const char* kHelp =
    "Usage: device-root [--opt DIR | --opt-tmpfs] [--tmp DIR | --tmp-tmpfs] [--keep DIR]... [--] COMMAND [ARGS]\n"
    "       device-root --check\n"
    "\n"
    "Runs COMMAND with something else at /opt and /tmp, which nobody else sees.\n"
    "\n"
    "  --opt DIR, --tmp DIR       DIR stands at /opt, at /tmp\n"
    "  --opt-tmpfs, --tmp-tmpfs   an empty directory stands there, and is gone with COMMAND\n"
    "  --keep DIR                 DIR stays reachable under its own path, wherever it lies\n"
    "  --check                    tells by the exit status whether this machine allows it: 0 yes, 1 no\n"
    "\n"
    "COMMAND finds DEVICE_ROOT=private in its environment. Exit status: COMMAND's own; 125 when its root cannot be\n"
    "had, 126 when COMMAND cannot be run, 127 when there is none of that name.\n";

struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct Arguments {
  host::DeviceRootOptions root;
  bool help = false;
  bool check = false;
  char** command = nullptr;
};

/// Walks over the options; each takes itself and its value away from the front.
class Parser {
 public:
  explicit Parser(char** arguments) : next(arguments) {}

  Arguments Parse() {
    while (*next != nullptr && std::string_view(*next).starts_with('-')) {
      const std::string option = *next++;
      if (option == "--") break;
      Take(option);
    }
    result.command = next;
    if (!result.help && !result.check && *next == nullptr) throw UsageError("a command is missing");
    return result;
  }

 private:
  void Take(const std::string& option) {
    if (option == "--help" || option == "-h") {
      result.help = true;
    } else if (option == "--check") {
      result.check = true;
    } else if (option == "--opt") {
      result.root.opt = {true, Value(option)};
    } else if (option == "--opt-tmpfs") {
      result.root.opt = {true, ""};
    } else if (option == "--tmp") {
      result.root.tmp = {true, Value(option)};
    } else if (option == "--tmp-tmpfs") {
      result.root.tmp = {true, ""};
    } else if (option == "--keep") {
      result.root.keep.push_back(Value(option));
    } else {
      throw UsageError("unknown option " + option);
    }
  }

  std::string Value(const std::string& option) {
    if (*next == nullptr || **next == '\0') throw UsageError(option + " wants a directory");
    return *next++;
  }

  char** next;
  Arguments result;
};

int Check() {
  try {
    host::DeviceRoot::Enter({.opt = {true, ""}, .tmp = {true, ""}, .keep = {}});
    return 0;
  } catch (const std::exception& error) {
    std::cerr << "device-root: no private /opt and /tmp: " << error.what() << '\n';
    return 1;
  }
}

int Run(const Arguments& arguments) {
  host::DeviceRoot::Enter(arguments.root);
  setenv("DEVICE_ROOT", "private", 1);
  execvp(arguments.command[0], arguments.command);
  const int error = errno;
  std::cerr << "device-root: can't run " << arguments.command[0] << ": " << std::strerror(error) << '\n';
  return error == ENOENT ? kNotFound : kNotRunnable;
}

}  // namespace

int main(int /*argc*/, char** argv) {
  try {
    const Arguments arguments = Parser(argv + 1).Parse();
    if (arguments.help) {
      std::cout << kHelp;
      return 0;
    }
    return arguments.check ? Check() : Run(arguments);
  } catch (const UsageError& error) {
    std::cerr << "device-root: " << error.what() << "; device-root --help tells the usage\n";
  } catch (const std::exception& error) {
    std::cerr << "device-root: " << error.what() << '\n';
  }
  return kFailed;
}
