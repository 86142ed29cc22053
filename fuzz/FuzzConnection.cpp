// The bytes of connections, one after the other, against a live state: the service reads each through a socket and ends
// it, and every reply is, byte for byte or by its content, what the model of the log makes of the request.
//
// Input: a byte for the log that the state starts with; then connections: a byte of seconds that pass before it, the
// size of what the client sends in two bytes, and what it sends. The client then ends its sending side.

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "Agreement.h"
#include "Check.h"
#include "Clock.h"
#include "Input.h"
#include "Target.h"
#include "ipc/service/Service.h"
#include "ipc/service/ServiceToken.h"
#include "support/LogModel.h"
#include "support/LogText.h"

namespace zav::fuzz {
namespace {

using test::LogRange;
using test::ParseObject;
using test::ReadContent;
using test::ReadRecords;
using test::ReadSummary;

constexpr int kMostConnections = 32;
constexpr unsigned kMostBytes = 8192;
constexpr std::uint32_t kLongestString = 16777216;

/// What the service closes is closed at once, unless another program happens to look at the process's descriptors: the
/// kernel keeps the one that it looks at for that moment.
constexpr timeval kClosingTime{5, 0};

/// The logs that a state starts with.
struct StoredLog {
  const char* storage;
  const char* logging;
};

// The second and the third meet their limits within a few reports, which no configured log would.
constexpr std::array kLogs{
    StoredLog{R"({"config":{"max_index":2000,"max_file_size":10,"max_logging_period":3600},)"
              R"("state":{"count":0,"last_index":-1}})",
              "enabled"},
    StoredLog{R"({"config":{"max_index":6,"max_file_size":3,"max_logging_period":60},)"
              R"("state":{"count":5,"last_index":4,"phishing":4,"malware":1},)"
              R"("3":{"url":"http://a.example","threat":"phishing","timestamp":99990},)"
              R"("4":{"url":"http://b.example","threat":"malware","timestamp":99995}})",
              "enabled"},
    StoredLog{R"({"config":{"max_index":3000,"max_file_size":4,"max_logging_period":-7},)"
              R"("state":{"count":2147483647,"last_index":2000},)"
              R"("7":{"url":"","threat":"","timestamp":2147483647},)"
              R"("007":{"url":"http://d.example","timestamp":100020},)"
              R"("1999":{"url":"http://e.example","threat":"count","timestamp":100007},)"
              R"("2000":{"url":"http://f.example","threat":"last_index","timestamp":100008}})",
              "enabled"},
    StoredLog{"{}", "disabled"},
};

/// What a client receives up to the end of the connection.
class Client {
 public:
  Client() {
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) Fail("a pair of sockets can be had", "");
    setsockopt(ends[0], SOL_SOCKET, SO_RCVTIMEO, &kClosingTime, sizeof(kClosingTime));
  }
  ~Client() { close(ends[0]); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  int ServiceEnd() const { return ends[1]; }

  void Send(const std::string& bytes) {
    Check(send(ends[0], bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size()),
          "the socket has room for a request");
    shutdown(ends[0], SHUT_WR);
  }

  std::string Received() {
    std::string all;
    std::array<char, 65536> part;
    ssize_t size = 0;
    while ((size = recv(ends[0], part.data(), part.size(), 0)) > 0) {
      all.append(part.data(), static_cast<std::size_t>(size));
    }
    // A client whose request was not read to its end is told so by a reset.
    Check(size == 0 || errno == ECONNRESET, "the service has closed the connection");
    return all;
  }

 private:
  std::array<int, 2> ends{};
};

/// Reads a request, or a reply, from its front as the protocol has it.
class Wire {
 public:
  /// @param bytes  must outlive this.
  explicit Wire(std::string_view bytes) : rest(bytes) {}

  bool IsAtEnd() const { return rest.empty(); }

  /// Four bytes; nothing where there are fewer.
  std::optional<std::int32_t> Int() {
    std::int32_t value = 0;
    if (rest.size() < sizeof(value)) return std::nullopt;
    std::memcpy(&value, rest.data(), sizeof(value));
    rest.remove_prefix(sizeof(value));
    return value;
  }

  /// A length and as many bytes; a length over the limit is that of an empty text.
  std::optional<std::string> Text() {
    const auto length = Int();
    if (!length) return std::nullopt;
    const auto size = static_cast<std::uint32_t>(*length);
    if (size > kLongestString) return std::string();
    if (size > rest.size()) return std::nullopt;
    const std::string text(rest.substr(0, size));
    rest.remove_prefix(size);
    return text;
  }

  /// The fields of a package after its first word, all or none.
  template <std::size_t Count>
  std::optional<std::array<std::int32_t, Count>> Package() {
    std::array<std::int32_t, Count> fields{};
    if (rest.size() < sizeof(std::int32_t) * (1 + Count)) return std::nullopt;
    Int();
    for (auto& field : fields) field = *Int();
    return fields;
  }

 private:
  std::string_view rest;
};

std::string Bytes(std::int32_t value) {
  std::string bytes(sizeof(value), '\0');
  std::memcpy(bytes.data(), &value, sizeof(value));
  return bytes;
}

class Session {
 public:
  explicit Session(const StoredLog& stored)
      : logging(stored.logging == std::string("enabled")),
        state(Start(stored.storage, stored.logging)),
        model(ReadContent(ParseObject(stored.storage)), logging, Clock::kStart) {}

  void Run(Input& input);

 private:
  using Answer = void (Session::*)(Wire&, const std::string&);

  void Serve(const std::string& request);
  void CheckReply(const std::string& request, const std::string& reply);

  void PyxState(Wire& request, const std::string& reply);
  void LoggingState(Wire& request, const std::string& reply);
  void Report(Wire& request, const std::string& reply);
  void Status(Wire& request, const std::string& reply);
  void Forward(Wire& request, const std::string& reply);
  void Backward(Wire& request, const std::string& reply);
  void Records(Wire& request, const std::string& reply, LogFinding (LogModel::*find)(const LogRange&) const);
  void DropRecords(Wire& request, const std::string& reply);
  void Count(Wire& request, const std::string& reply);

  static const std::map<std::int32_t, Answer> kAnswers;

  bool logging;
  pyx::State& state;
  LogModel model;
};

const std::map<std::int32_t, Session::Answer> Session::kAnswers{
    {4, &Session::PyxState}, {5, &Session::LoggingState}, {6, &Session::Report},       {16, &Session::Status},
    {17, &Session::Forward}, {18, &Session::Backward},    {19, &Session::DropRecords}, {20, &Session::Count}};

void Session::Run(Input& input) {
  for (int number = 0; number < kMostConnections && !input.IsAtEnd(); ++number) {
    Clock::Set(Clock::Now() + input.Byte());
    const unsigned size = input.Size();
    Serve(input.Bytes(size % kMostBytes));
  }
  CheckAgreement(state, model);
}

void Session::Serve(const std::string& request) {
  static ipc::Service service;
  Client client;
  client.Send(request);
  // As the accept loop hands a connection over.
  Check(ipc::serviceMutex.try_lock(), "the token is free before a connection");
  ipc::serviceBusy = true;
  service.serve(client.ServiceEnd());
  Check(!ipc::serviceBusy, "the service is not busy after a connection");
  Check(ipc::serviceMutex.try_lock(), "the token is free after a connection");
  ipc::serviceMutex.unlock();
  CheckReply(request, client.Received());
}

void Session::CheckReply(const std::string& request, const std::string& reply) {
  Wire wire(request);
  const auto header = wire.Package<3>();
  const auto answer = header ? kAnswers.find((*header)[2]) : kAnswers.end();
  if (!header || (*header)[1] != 8 || answer == kAnswers.end()) {
    Check(reply.empty(), "what is no request gets no reply");
    return;
  }
  (this->*answer->second)(wire, reply);
}

void Session::PyxState(Wire& /*request*/, const std::string& reply) {
  Check(reply == Bytes(0) + Bytes(301) + Bytes(1), "the reply tells the feature's switch");
}

void Session::LoggingState(Wire& /*request*/, const std::string& reply) {
  Check(reply == Bytes(0) + Bytes(1301) + Bytes(logging ? 1 : 0), "the reply tells the logging switch");
}

void Session::Report(Wire& request, const std::string& reply) {
  const auto url = request.Text();
  const auto threat = url ? request.Text() : std::nullopt;
  if (!threat) {
    Check(reply == Bytes(-2), "a report that is cut off is answered with -2");
    return;
  }
  const bool added = model.Report(*url, *threat, Clock::Now());
  Check(reply == Bytes(added ? 0 : -1), "a report is answered with 0, one without a url with -1");
}

void Session::Status(Wire& /*request*/, const std::string& reply) {
  Wire wire(reply);
  const Json::Value status = ParseObject(wire.Text().value_or(""));
  Check(wire.IsAtEnd() && !status.isNull(), "the reply is one text, a JSON object");
  CheckEqual(ReadSummary(status), Rewritten(model.Summarise(Clock::Now())), "the status is the model's");
}

void Session::Forward(Wire& request, const std::string& reply) {
  Records(request, reply, &LogModel::FindForward);
}

void Session::Backward(Wire& request, const std::string& reply) {
  Records(request, reply, &LogModel::FindBackward);
}

void Session::Records(Wire& request, const std::string& reply, LogFinding (LogModel::*find)(const LogRange&) const) {
  const auto package = request.Package<5>();
  LogFinding expected;
  if (package) {
    const auto& [word, from, to, maxCount, startIndex] = *package;
    expected = (model.*find)({from, to == 0 ? Clock::Now() : to, maxCount, startIndex});
  }
  if (expected.records.empty()) {
    Check(reply == Bytes(-1), "where there is no record the reply is -1");
    return;
  }
  Wire wire(reply);
  Check(wire.Int() == 0, "where there are records the reply begins with 0");
  const int lastIndex = wire.Int().value_or(-1);
  const LogFinding found{lastIndex, ReadRecords(ParseObject(wire.Text().value_or("")))};
  CheckEqual(found, Rewritten(expected), "the records are the model's");
  Check(wire.IsAtEnd(), "a reply ends with the records");
}

void Session::DropRecords(Wire& /*request*/, const std::string& reply) {
  model.DropRecords();
  Check(reply == Bytes(0), "a reset is answered with 0");
}

void Session::Count(Wire& request, const std::string& reply) {
  const auto package = request.Package<3>();
  Check(reply == Bytes(package ? model.CountBetween((*package)[1], (*package)[2]) : -1), "the count is the model's");
}

}  // namespace
}  // namespace zav::fuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace zav::fuzz;
  Input input(data, size);
  const StoredLog& stored = kLogs[input.Byte() % kLogs.size()];
  Session(stored).Run(input);
  return 0;
}
