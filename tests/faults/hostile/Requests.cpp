#include "Requests.h"

#include <sys/socket.h>

#include <array>
#include <cstring>

#include "ipc/service/ServedConnection.h"
#include "support/StoredState.h"
#include "support/WaitUntil.h"

namespace zav::test {

using ipc::Method;

namespace {

template <class P>
std::string Bytes(const P& package) {
  const auto bytes = ipc::Encode(package);
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

std::int32_t IntAt(const std::string& bytes, size_t offset) {
  std::int32_t value = 0;
  std::memcpy(&value, bytes.data() + offset, sizeof(value));
  return value;
}

bool IsInt(const std::string& answer, std::int32_t value) {
  return answer.size() == sizeof(value) && IntAt(answer, 0) == value;
}

bool IsJson(const std::string& text) {
  try {
    return Parsed(text).isObject();
  } catch (const std::runtime_error&) {
    return false;
  }
}

/// A length and so many bytes of JSON, to the end of the answer.
bool IsJsonString(const std::string& answer, size_t offset) {
  if (answer.size() < offset + 4) return false;
  const std::string text = answer.substr(offset + 4);
  return static_cast<size_t>(IntAt(answer, offset)) == text.size() && IsJson(text);
}

bool IsState(const std::string& answer, std::int32_t code) {
  return answer.size() == ipc::StatePackage::kSize && IntAt(answer, 4) == code && IntAt(answer, 8) >= 0 &&
         IntAt(answer, 8) <= 1;
}

/// Takes a request apart as a receiver does.
class RequestReader {
 public:
  RequestReader(const std::string& request, std::optional<size_t> firstPiece) : bytes(request), pieces(firstPiece) {}

  /// @return whether so many bytes come in one piece.
  bool TakeWhole(size_t size) {
    const bool torn = pieces && *pieces > offset && *pieces < offset + size;
    return !torn && Take(size);
  }
  bool Take(size_t size) {
    if (bytes.size() - offset < size) return false;
    offset += size;
    return true;
  }
  /// @return the string's size; nothing when it does not come. A length over the limit is that of an empty string.
  std::optional<size_t> TakeString() {
    const size_t at = offset;
    if (!TakeWhole(4)) return std::nullopt;
    const auto size = static_cast<std::uint32_t>(IntAt(bytes, at));
    if (size > ipc::kMaxStringSize) return 0;
    return Take(size) ? std::optional<size_t>(size) : std::nullopt;
  }

 private:
  const std::string& bytes;
  std::optional<size_t> pieces;
  size_t offset = 0;
};

bool IsReportsAnswer(RequestReader& reader, const std::string& answer) {
  const auto url = reader.TakeString();
  if (!url || !reader.TakeString()) return IsInt(answer, -2);
  return IsInt(answer, *url == 0 ? -1 : 0);
}

bool IsLogsAnswer(RequestReader& reader, const std::string& answer) {
  if (!reader.TakeWhole(ipc::LogPackage::kSize)) return IsInt(answer, -1);
  return IsInt(answer, -1) || (answer.size() > 8 && IntAt(answer, 0) == 0 && IsJsonString(answer, 8));
}

bool IsCountsAnswer(RequestReader& reader, const std::string& answer) {
  if (!reader.TakeWhole(ipc::FramePackage::kSize)) return IsInt(answer, -1);
  return answer.size() == 4 && IntAt(answer, 0) >= 0;
}

bool IsAnswerOf(Method method, RequestReader& reader, const std::string& answer) {
  switch (method) {
    case Method::kGetPyxState:
      return IsState(answer, ipc::kPyxStateCode);
    case Method::kGetLoggingState:
      return IsState(answer, ipc::kLoggingStateCode);
    case Method::kLogThreatUrl:
      return IsReportsAnswer(reader, answer);
    case Method::kGetLogStatus:
      return IsJsonString(answer, 0);
    case Method::kGetLog:
    case Method::kGetLogReverse:
      return IsLogsAnswer(reader, answer);
    case Method::kResetLog:
      return IsInt(answer, 0);
    case Method::kCountRecords:
      return IsCountsAnswer(reader, answer);
  }
  return answer.empty();
}

}  // namespace

sockaddr_un Address(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path));
  return address;
}

std::string Length(std::uint32_t length) {
  std::string bytes(sizeof(length), '\0');
  std::memcpy(bytes.data(), &length, sizeof(length));
  return bytes;
}

std::string String(const std::string& text) {
  return Length(static_cast<std::uint32_t>(text.size())) + text;
}

std::string HeaderBytes(Method method) {
  ipc::Header header;
  header.method = static_cast<std::int32_t>(method);
  return Bytes(header);
}

std::string ReportBytes(const std::string& url, const std::string& threat) {
  return HeaderBytes(Method::kLogThreatUrl) + String(url) + String(threat);
}

std::string GetLogBytes() {
  return HeaderBytes(Method::kGetLog) + Bytes(ipc::LogPackage());
}

std::vector<Sample> AllRequests() {
  const auto log = Bytes(ipc::LogPackage());
  return {
      {Method::kGetPyxState, HeaderBytes(Method::kGetPyxState)},
      {Method::kGetLoggingState, HeaderBytes(Method::kGetLoggingState)},
      {Method::kLogThreatUrl, ReportBytes("url", "threat")},
      {Method::kGetLogStatus, HeaderBytes(Method::kGetLogStatus)},
      {Method::kGetLog, GetLogBytes()},
      {Method::kGetLogReverse, HeaderBytes(Method::kGetLogReverse) + log},
      {Method::kResetLog, HeaderBytes(Method::kResetLog)},
      {Method::kCountRecords, HeaderBytes(Method::kCountRecords) + Bytes(ipc::FramePackage())},
  };
}

std::string Exchange(const std::string& bytes) {
  RawClient client;
  client.Send(bytes.data(), bytes.size());
  client.HalfClose();
  return ReceiveAll(client);
}

std::string ReceiveAll(const RawClient& client) {
  std::string all;
  std::array<char, 4096> some{};
  // What the service does not end, its deadline ends.
  for (ssize_t got = 0; (got = recv(client.descriptor(), some.data(), some.size(), 0)) > 0;) {
    all.append(some.data(), static_cast<size_t>(got));
  }
  return all;
}

bool IsAnswerTo(const std::string& bytes, const std::string& answer, std::optional<size_t> pieces) {
  RequestReader reader(bytes, pieces);
  if (!reader.TakeWhole(ipc::Header::kSize) || IntAt(bytes, 8) != ipc::kHeaderTag) return answer.empty();
  return IsAnswerOf(static_cast<Method>(IntAt(bytes, 12)), reader, answer);
}

bool AnHonestClientIsServed() {
  const auto isServed = [] {
    RawClient client;
    return client.SendHeader(Method::kGetPyxState) && client.Receive(ipc::StatePackage::kSize).has_value() &&
           client.EndsWithoutAnswer();
  };
  // A moment more, for a machine that is busy.
  return WaitUntil(isServed, ipc::ServedConnection::kClientTime + std::chrono::seconds(5));
}

}  // namespace zav::test
