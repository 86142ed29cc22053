#pragma once

#include <gtest/gtest.h>
#include <pyxclient/Client.h>

#include <chrono>
#include <optional>
#include <string>

namespace zav::client::test {

/// For what has to work, however slow the machine is.
inline constexpr std::chrono::milliseconds kLong{20000};
/// For what has to end by its deadline, and has to have happened before it.
inline constexpr std::chrono::milliseconds kShort{500};

inline Client ClientOf(const std::string& path, std::chrono::milliseconds timeout = kLong) {
  return Client({path, timeout});
}

/// The kind of error that a call throws; none fails the test.
template <class Call>
std::optional<ErrorKind> KindOf(Call call) {
  try {
    call();
  } catch (const Error& error) {
    return error.kind();
  }
  ADD_FAILURE() << "the call did not fail";
  return std::nullopt;
}

}  // namespace zav::client::test
