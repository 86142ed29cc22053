#pragma once

#include <gtest/gtest.h>
#include <pyxclient/pyxclient.hpp>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace zav::client::test {

using pyxclient::Client;
using pyxclient::Error;
using pyxclient::Failure;
using pyxclient::Query;
using pyxclient::Record;

/// For what has to work, however slow the machine is.
inline constexpr std::chrono::milliseconds kLong{60000};
/// For what has to end by its deadline, and has to have happened before it.
inline constexpr std::chrono::milliseconds kShort{500};

inline Client ClientOf(const std::string& path, std::chrono::milliseconds timeout = kLong) {
  return Client({.socket = path, .timeout = timeout});
}

inline pyxclient::Time TimeOf(std::int64_t seconds) {
  return pyxclient::Time(std::chrono::seconds(seconds));
}

/// Every record that a query gives.
inline std::vector<Record> ReadLog(const std::string& path, const Query& query = {},
                                   std::chrono::milliseconds timeout = kLong) {
  Client client = ClientOf(path, timeout);
  std::vector<Record> records;
  for (const Record& record : client.Log(query)) records.push_back(record);
  return records;
}

/// How a call fails; none fails the test.
template <class Call>
std::optional<Failure> FailureOf(Call call) {
  try {
    call();
  } catch (const Error& error) {
    return error.failure();
  }
  ADD_FAILURE() << "the call did not fail";
  return std::nullopt;
}

}  // namespace zav::client::test
