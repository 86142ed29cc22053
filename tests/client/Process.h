#pragma once

#include <string>
#include <vector>

namespace zav::client::test {

/// How a program ended and what it wrote.
struct Outcome {
  /// The exit status, or -1 when it did not end by itself.
  int status = -1;
  std::string out;
  std::string err;
};

/// How a program is started.
struct Surroundings {
  /// The whole environment.
  std::vector<std::string> environment = {"LC_ALL=C.UTF-8", "TZ=UTC"};
  /// Where standard output goes instead of into the outcome.
  std::string outPath;
};

/// Runs the pyxctl that was built, for at most 60 s.
Outcome RunPyxctl(const std::vector<std::string>& arguments, const Surroundings& surroundings = {});

}  // namespace zav::client::test
