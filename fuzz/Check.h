#pragma once

#include <string>

namespace zav::fuzz {

/// Ends the process with a finding: what should have held, and what was found instead. The input that led here is kept
/// by the program around it.
[[noreturn]] void Fail(const char* property, const std::string& found);

/// @param property  what must hold, as a sentence.
inline void Check(bool holds, const char* property) {
  if (!holds) Fail(property, "");
}

inline std::string Describe(const std::string& text) {
  return text;
}
inline std::string Describe(int value) {
  return std::to_string(value);
}

/// Checks that two values are equal. Each is described, by `Describe`, only where they are not.
template <class Value>
void CheckEqual(const Value& actual, const Value& expected, const char* property) {
  if (!(actual == expected)) Fail(property, Describe(actual) + "\n  in place of\n" + Describe(expected));
}

}  // namespace zav::fuzz
