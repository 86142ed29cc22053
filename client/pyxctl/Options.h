#pragma once

#include <CLI/CLI.hpp>
#include <cmath>
#include <cstdint>
#include <limits>
#include <stdexcept>

namespace zav::pyxctl {

/// Adds an option whose text is made into a value when the command line is read, or refused: where `read` throws
/// `std::invalid_argument`.
template <class Read>
CLI::Option* DeclareText(CLI::App& command, const char* name, const char* unit, const char* meaning, Read read) {
  const auto take = [name, read](const std::string& text) {
    try {
      read(text);
    } catch (const std::invalid_argument& error) {
      throw CLI::ValidationError(name, error.what());
    }
  };
  return command.add_option_function<std::string>(name, take, meaning)->type_name(unit);
}

/// Adds an option that takes a number from 0 up, or from `least`.
template <class Number>
CLI::Option* DeclareNumber(CLI::App& command, const char* name, Number& number, const char* unit, const char* meaning,
                           std::int32_t least = 0) {
  constexpr std::int32_t kLargest = std::numeric_limits<std::int32_t>::max();
  return command.add_option(name, number, meaning)->check(CLI::Range(least, kLargest).description(""))->type_name(unit);
}

/// Adds the option --interval.
inline void DeclareInterval(CLI::App& command, double& seconds, const char* meaning) {
  command.add_option("--interval", seconds, meaning)
      ->check(CLI::Range(0.1, 86400.0).description(""))
      // What is no number at all lies in every range.
      ->check(CLI::Validator(
          [](const std::string& text) { return std::isnan(std::stod(text)) ? "it is no number" : ""; }, ""))
      ->capture_default_str()
      ->type_name("SECONDS");
}

}  // namespace zav::pyxctl
