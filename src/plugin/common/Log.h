#pragma once

#include <cerrno>
#include <charconv>
#include <concepts>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

/// The plug-in's log lines: tag "ZAV_PYX_PLUGIN", system buffer, "unit.cpp: function(line) > message".
///
/// `LOG_DEBUG(pieces...)`, `LOG_INFO`, `LOG_WARNING` and `LOG_ERROR` log from where they stand; a message is its pieces
/// one after the other: text, integers in decimal, pointers in hexadecimal. None of them throws (a line whose message
/// finds no memory says so instead), and `errno` is left as it was. Any thread may log at any time.
///
/// An error number is taken before the line is made: `const int error = errno; LOG_ERROR(…, ErrorText{error})`.
namespace zav::common {

enum class Priority : int { kDebug = 3, kInfo = 4, kWarning = 5, kError = 6 };

/// Where a line comes from.
struct LogSite {
  /// The source file's base name with its extension.
  const char* unit;
  /// The bare function name.
  const char* function;
  int line;
};

#define LOG_SITE LOG_SITE_OF(__func__)
/// A site in a helper of the function that the line is to name.
#define LOG_SITE_OF(function) (::zav::common::LogSite{__FILE_NAME__, function, __LINE__})

/// Hands one finished line to the platform's log.
void PrintLine(Priority priority, const LogSite& site, const char* message) noexcept;

inline void AppendPiece(std::string& message, std::string_view piece) {
  message += piece;
}

/// Text, not an address: without this one the overload for pointers would be the better match.
inline void AppendPiece(std::string& message, const char* piece) {
  message += piece;
}

/// No locale has a say in how numbers look: `to_chars` writes plain digits.
template <std::integral Number>
requires(!std::same_as<Number, bool> && !std::same_as<Number, char>) void AppendPiece(std::string& message,
                                                                                      Number number) {
  char digits[24];
  const auto end = std::to_chars(digits, digits + sizeof(digits), number).ptr;
  message.append(digits, end);
}

inline void AppendPiece(std::string& message, const void* pointer) {
  char digits[2 * sizeof(pointer)];
  const auto end = std::to_chars(digits, digits + sizeof(digits), reinterpret_cast<std::uintptr_t>(pointer), 16).ptr;
  message.append("0x").append(digits, end);
}

template <class... Pieces>
void LogLine(Priority priority, const LogSite& site, const Pieces&... pieces) noexcept {
  const int error = errno;
  try {
    std::string message;
    (AppendPiece(message, pieces), ...);
    PrintLine(priority, site, message.c_str());
  } catch (...) {
    PrintLine(priority, site, "(no memory for the message)");
  }
  errno = error;
}

#define LOG_DEBUG(...) ::zav::common::LogLine(::zav::common::Priority::kDebug, LOG_SITE, __VA_ARGS__)
#define LOG_INFO(...) ::zav::common::LogLine(::zav::common::Priority::kInfo, LOG_SITE, __VA_ARGS__)
#define LOG_WARNING(...) ::zav::common::LogLine(::zav::common::Priority::kWarning, LOG_SITE, __VA_ARGS__)
#define LOG_ERROR(...) ::zav::common::LogLine(::zav::common::Priority::kError, LOG_SITE, __VA_ARGS__)

}  // namespace zav::common
