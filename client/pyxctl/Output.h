#pragma once

#include <json/value.h>

#include <functional>
#include <ostream>
#include <string>
#include <string_view>

namespace zav::pyxctl {

enum class Format { kHuman, kJson };

/// What a text from outside may show on a terminal: whatever is not printable in the system's locale, or changes the
/// direction or the visibility of what follows, stands as \xNN a byte, and a backslash as two.
std::string Printable(std::string_view text);

/// The columns of a table that `text`, which is printable, takes.
std::size_t Width(const std::string& text);

/// Fills `text` with blanks to `width` columns; a wider one is left as it is.
std::string Padded(const std::string& text, std::size_t width);

/// Where the result of a verb goes, in the form that was asked for.
class Output {
 public:
  Output(std::ostream& stream, Format format) : stream_(stream), format_(format) {}

  /// Writes `document` on one line for a program, or lets `human` write for a person.
  void Write(const Json::Value& document, const std::function<void(std::ostream&)>& human) const;

 private:
  std::ostream& stream_;
  Format format_;
};

}  // namespace zav::pyxctl
