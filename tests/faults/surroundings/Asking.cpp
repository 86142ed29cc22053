#include "Asking.h"

#include <cstring>
#include <stdexcept>

#include "support/RawClient.h"
#include "support/StoredState.h"
#include "support/WaitUntil.h"

namespace zav::test {
namespace {

using ipc::Method;

/// Something came that is no answer.
struct Malformed : std::runtime_error {
  using std::runtime_error::runtime_error;
};

void Require(bool condition, const char* what) {
  if (!condition) throw Malformed(what);
}

Json::Value Object(const std::string& text) {
  try {
    Json::Value value = Parsed(text);
    Require(value.isObject(), "no object");
    return value;
  } catch (const Malformed&) {
    throw;
  } catch (const std::runtime_error& exception) {
    throw Malformed(exception.what());
  }
}

bool ReadSwitch(RawClient& client, Answer& answer, int code) {
  const auto bytes = client.Receive(ipc::StatePackage::kSize);
  if (!bytes) return false;
  ipc::PackageBytes<ipc::StatePackage> raw;
  std::memcpy(raw.data(), bytes->data(), raw.size());
  const auto package = ipc::Decode<ipc::StatePackage>(raw);
  Require(package.code == code && (package.state == 0 || package.state == 1), "no state");
  answer.number = package.state;
  return true;
}

bool ReadNumber(RawClient& client, Answer& answer, int least, int most) {
  const auto number = client.ReceiveInt();
  if (!number) return false;
  Require(least <= *number && *number <= most, "no such result");
  answer.number = *number;
  return true;
}

bool ReadDocument(RawClient& client, Answer& answer) {
  const auto text = client.ReceiveString();
  if (!text) return false;
  answer.document = Object(*text);
  return true;
}

bool ReadLog(RawClient& client, Answer& answer) {
  Answer result;
  if (!ReadNumber(client, result, -1, 0)) return false;
  if (result.number == -1) {
    answer.number = -1;
    return true;
  }
  const auto last = client.ReceiveInt();
  if (!last) return false;
  answer.number = *last;
  return ReadDocument(client, answer);
}

constexpr int kMostRecords = 1'000'000;

/// @return whether the answer was whole; throws when it is none.
bool Read(RawClient& client, Method method, Answer& answer) {
  switch (method) {
    case Method::kGetPyxState:
      return ReadSwitch(client, answer, ipc::kPyxStateCode);
    case Method::kGetLoggingState:
      return ReadSwitch(client, answer, ipc::kLoggingStateCode);
    case Method::kLogThreatUrl:
      return ReadNumber(client, answer, -2, 0);
    case Method::kGetLogStatus:
      return ReadDocument(client, answer);
    case Method::kGetLog:
    case Method::kGetLogReverse:
      return ReadLog(client, answer);
    case Method::kResetLog:
      return ReadNumber(client, answer, -1, 0);
    case Method::kCountRecords:
      return ReadNumber(client, answer, -1, kMostRecords);
  }
  throw std::logic_error("no such method");
}

bool SendRest(RawClient& client, Method method, const TimeFrame& frame) {
  if (method == Method::kLogThreatUrl) return client.SendString("http://asked") && client.SendString("threat");
  if (method == Method::kCountRecords) {
    ipc::FramePackage package;
    package.from = frame.from;
    package.to = frame.to;
    return client.SendPackage(package);
  }
  if (method != Method::kGetLog && method != Method::kGetLogReverse) return true;
  ipc::LogPackage package;
  package.from = frame.from;
  package.to = frame.to;
  return client.SendPackage(package);
}

Answer ReadAnswer(RawClient& client, Method method) {
  Answer answer;
  try {
    answer.outcome = Read(client, method, answer) ? Outcome::kAnswered : Outcome::kEnded;
    if (answer.outcome == Outcome::kAnswered) Require(client.EndsWithoutAnswer(), "more than an answer");
  } catch (const Malformed&) {
    answer.outcome = Outcome::kMalformed;
  }
  return answer;
}

std::unique_ptr<RawClient> Connected() {
  try {
    return std::make_unique<RawClient>(kSocketFile, std::chrono::milliseconds(0));
  } catch (const std::runtime_error&) {
    return nullptr;
  }
}

}  // namespace

const std::vector<Method> kAllMethods{Method::kGetPyxState,  Method::kGetLoggingState, Method::kLogThreatUrl,
                                      Method::kGetLogStatus, Method::kGetLog,          Method::kGetLogReverse,
                                      Method::kCountRecords, Method::kResetLog};

std::ostream& operator<<(std::ostream& out, Outcome outcome) {
  const char* const names[] = {"nobody listens", "the end of the connection", "an answer", "no answer of that method"};
  return out << names[static_cast<int>(outcome)];
}

Answer AskOnce(Method method, const TimeFrame& frame) {
  const auto client = Connected();
  if (!client) return {};
  // A client that is refused may be so while it still sends.
  if (!client->SendHeader(method) || !SendRest(*client, method, frame)) return {Outcome::kEnded, -2, {}};
  return ReadAnswer(*client, method);
}

Answer Ask(Method method, const TimeFrame& frame) {
  Answer answer;
  WaitUntil([&] {
    answer = AskOnce(method, frame);
    return answer.outcome != Outcome::kEnded && answer.outcome != Outcome::kNobody;
  });
  return answer;
}

std::optional<int> ReportOnce(const std::string& url, const std::string& threat) {
  const auto client = Connected();
  if (!client || !client->SendHeader(Method::kLogThreatUrl) || !client->SendString(url) ||
      !client->SendString(threat)) {
    return std::nullopt;
  }
  const Answer answer = ReadAnswer(*client, Method::kLogThreatUrl);
  EXPECT_NE(answer.outcome, Outcome::kMalformed);
  if (answer.outcome != Outcome::kAnswered) return std::nullopt;
  return answer.number;
}

std::vector<std::string> UrlsOf(const Json::Value& records) {
  std::vector<std::string> urls;
  for (const auto& record : records) urls.push_back(record["url"].asString());
  return urls;
}

}  // namespace zav::test
