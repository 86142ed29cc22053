#include "Requests.h"

#include <json/json.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <memory>

#include "ipc/service/Package.h"
#include "support/Device.h"
#include "support/WaitUntil.h"

namespace zav::test {
namespace {

using ipc::Method;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr size_t kNumberSize = sizeof(std::int32_t);

/// Nonblocking: to a service that has no room in its backlog there is no connection.
int Connect() {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  kSocketFile.copy(address.sun_path, sizeof(address.sun_path) - 1);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd != -1 && connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) return fd;
  if (fd != -1) close(fd);
  return -1;
}

template <class P>
std::string BytesOf(const P& package) {
  const auto bytes = ipc::Encode(package);
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

std::string HeaderOf(Method method) {
  ipc::Header header;
  header.method = static_cast<std::int32_t>(method);
  return BytesOf(header);
}

std::string NumberBytes(std::int32_t number) {
  return {reinterpret_cast<const char*>(&number), sizeof(number)};
}

std::string StringBytes(const std::string& text) {
  return NumberBytes(static_cast<std::int32_t>(text.size())) + text;
}

std::int32_t NumberAt(const std::string& bytes, size_t offset) {
  std::int32_t number = 0;
  std::memcpy(&number, bytes.data() + offset, sizeof(number));
  return number;
}

bool IsJsonObject(const std::string& text) {
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  Json::Value value;
  return reader->parse(text.data(), text.data() + text.size(), &value, nullptr) && value.isObject();
}

}  // namespace

Request::Request(const std::string& bytes) : fd(Connect()) {
  if (fd != -1) send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

Request::~Request() {
  if (fd != -1) close(fd);
}

bool Request::Receive(milliseconds deadline) {
  pollfd readable{fd, POLLIN, 0};
  if (poll(&readable, 1, static_cast<int>(deadline.count())) != 1) return false;
  std::array<char, 4096> chunk;
  const ssize_t got = recv(fd, chunk.data(), chunk.size(), 0);
  if (got > 0) {
    answer.append(chunk.data(), static_cast<size_t>(got));
    return true;
  }
  close(fd);
  fd = -1;
  return true;
}

bool Request::WaitForEnd(milliseconds deadline) {
  const auto end = steady_clock::now() + deadline;
  while (fd != -1) {
    const auto left = std::chrono::ceil<milliseconds>(end - steady_clock::now());
    if (left.count() <= 0 || !Receive(left)) return false;
  }
  return true;
}

std::string ReportOf(const std::string& url) {
  return HeaderOf(Method::kLogThreatUrl) + StringBytes(url) + StringBytes("threat");
}

std::string StateRequest() {
  return HeaderOf(Method::kGetPyxState);
}

std::string LogRequest() {
  return HeaderOf(Method::kGetLog) + BytesOf(ipc::LogPackage());
}

std::string WrongInReport(const std::string& answer) {
  if (answer.empty()) return {};
  if (answer.size() < kNumberSize) return kCutShort;
  const std::int32_t number = NumberAt(answer, 0);
  if (answer.size() == kNumberSize && number <= 0 && number >= -2) return {};
  return "a report was answered with " + std::to_string(answer.size()) + " bytes, the number " + std::to_string(number);
}

std::string WrongInState(const std::string& answer) {
  if (answer.empty()) return {};
  if (answer.size() < ipc::StatePackage::kSize) return kCutShort;
  if (answer.size() == ipc::StatePackage::kSize && NumberAt(answer, 4) == ipc::kPyxStateCode &&
      NumberAt(answer, 8) == 1) {
    return {};
  }
  return "the state was answered with other than the package {301, 1}";
}

std::string WrongInLog(const std::string& answer) {
  if (answer.empty()) return {};
  if (answer.size() < kNumberSize) return kCutShort;
  const std::int32_t result = NumberAt(answer, 0);
  if (result == -1 && answer.size() == kNumberSize) return {};
  if (result != 0) return "the log was answered with the number " + std::to_string(result);
  if (answer.size() < kBeforeText) return kCutShort;
  const auto size = static_cast<size_t>(NumberAt(answer, 2 * kNumberSize));
  if (answer.size() < kBeforeText + size) return kCutShort;
  if (answer.size() == kBeforeText + size && IsJsonObject(answer.substr(kBeforeText))) return {};
  return "the log was answered with what is no JSON text of its own length";
}

std::optional<int> NumberOf(const std::string& answer) {
  if (answer.size() != kNumberSize) return std::nullopt;
  return NumberAt(answer, 0);
}

std::string RecordsOf(const std::string& answer) {
  if (answer.size() < kBeforeText || !WrongInLog(answer).empty()) return {};
  const auto size = static_cast<size_t>(NumberAt(answer, 2 * kNumberSize));
  return answer.size() == kBeforeText + size ? answer.substr(kBeforeText) : std::string();
}

std::optional<int> ReportUntilAnswered(const std::string& url, milliseconds deadline) {
  std::optional<int> number;
  WaitUntil(
      [&] {
        Request request(ReportOf(url));
        if (request.WaitForEnd(deadline)) number = NumberOf(request.Answer());
        return number.has_value();
      },
      deadline);
  return number;
}

std::optional<std::string> AskUntilAnswered(milliseconds deadline) {
  std::string answer;
  const bool came = WaitUntil(
      [&] {
        Request request(LogRequest());
        request.WaitForEnd(deadline);
        answer = request.Answer();
        // The number -1 alone is a whole answer, too: there is no record.
        return NumberOf(answer).has_value() || !RecordsOf(answer).empty();
      },
      deadline);
  return came ? std::optional(RecordsOf(answer)) : std::nullopt;
}

}  // namespace zav::test
