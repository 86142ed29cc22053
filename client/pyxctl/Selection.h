#pragma once

#include <regex.h>

#include <memory>
#include <pyxclient/pyxclient.hpp>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace zav::pyxctl {

/// A stretch of time, both ends included.
struct TimeRange {
  pyxclient::Time from = pyxclient::kBeginning;
  pyxclient::Time to = pyxclient::kEnd;
};

/// Adds the options --since, --until and --last. What they name is counted from the time when they are added.
void DeclareRange(CLI::App& command, TimeRange& range);

/// An extended regular expression, of the system's library and locale. One without an upper case letter ignores case.
class Pattern {
 public:
  /// @throws std::invalid_argument, in words, for what is none.
  explicit Pattern(const std::string& text);

  /// Whether it matches somewhere in a text, which may hold zero bytes.
  bool IsIn(const std::string& text) const;

 private:
  struct Free {
    void operator()(regex_t* expression) const;
  };

  std::unique_ptr<regex_t, Free> expression_;
};

/// Which records are asked for.
struct Selection {
  TimeRange range;
  /// The names of the threats, all when there is none.
  std::vector<std::string> threats;
  /// What the url or the threat's name has to match, if anything.
  std::shared_ptr<const Pattern> pattern;

  /// Whether it is more than a range.
  bool LooksAtText() const;
  bool Holds(const pyxclient::Record& record) const;
  /// As `Holds`, of a record that lies in the range.
  bool HoldsText(const pyxclient::Record& record) const;
};

/// Adds the options that select records.
void DeclareSelection(CLI::App& command, Selection& selection);

}  // namespace zav::pyxctl
