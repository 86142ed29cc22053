#include "pyxclient/Client.h"

#include <algorithm>
#include <utility>

#include "Answer.h"
#include "Connection.h"
#include "Documents.h"
#include "Request.h"

namespace zav::client {
namespace {

using ipc::Method;

constexpr std::int32_t kDone = 0;
/// The service's one answer for whatever did not work.
constexpr std::int32_t kFailed = -1;
/// Its answer to a report that did not reach it whole.
constexpr std::int32_t kNotReceived = -2;
/// A log query's `to` that stands for the service's own time.
constexpr std::int32_t kNow = 0;

enum class Repeat { kAlways, kUnlessTaken };

[[noreturn]] void GiveUp(ErrorKind kind) {
  switch (kind) {
    case ErrorKind::kRefused:
      throw Error(kind, "the service is busy and refused every connection");
    case ErrorKind::kUnknownOutcome:
      throw Error(kind, "the service did not say whether it logged the report");
    default:
      throw Error(ErrorKind::kTimedOut, "the service did not answer in time");
  }
}

/// One attempt; `kReset` when it is certain that nothing came of it.
Transfer Try(Connection& connection, const Request& request, Repeat repeat, const Deadline& deadline) {
  const Transfer sent = connection.Send(request.bytes(), deadline);
  if (sent != Transfer::kDone) return sent;
  const Transfer answered = connection.AwaitAnswer(deadline);
  const bool repeatable = repeat == Repeat::kAlways;
  if (answered == Transfer::kEnded) {
    if (repeatable || connection.LeftUnread(deadline)) return Transfer::kReset;
    GiveUp(ErrorKind::kUnknownOutcome);
  }
  if (answered == Transfer::kTimedOut && !repeatable) GiveUp(ErrorKind::kUnknownOutcome);
  return answered;
}

/// Sends the request as often as it takes and is allowed, and returns its answer, of which nothing has been read.
Answer Ask(const Options& options, const Request& request, Repeat repeat = Repeat::kAlways) {
  const Deadline deadline(options.timeout);
  // A service that has refused before and now lets the rest of the time pass is still a busy one.
  ErrorKind failure = ErrorKind::kTimedOut;
  for (GrowingPause pause; !deadline.Passed(); pause.Take(deadline)) {
    std::optional<Connection> connection = Connection::Open(options.socketPath, deadline);
    if (!connection) break;
    const Transfer transfer = Try(*connection, request, repeat, deadline);
    if (transfer == Transfer::kTimedOut) break;
    if (transfer == Transfer::kDone) {
      const ErrorKind late = repeat == Repeat::kAlways ? ErrorKind::kTimedOut : ErrorKind::kUnknownOutcome;
      return {std::move(*connection), deadline, late};
    }
    failure = ErrorKind::kRefused;
  }
  GiveUp(failure);
}

bool AskState(const Options& options, Method method, std::int32_t code) {
  const auto package = Ask(options, Request(method)).Package<ipc::StatePackage>();
  if (package.code != code || (package.state != 0 && package.state != 1)) {
    throw Error(ErrorKind::kMalformed, "the service's answer is no state");
  }
  return package.state == 1;
}

/// Of an answer that is 0 or one of the negative codes down to `last`: throws unless it is 0.
void ExpectDone(std::int32_t code, std::int32_t last, const char* what) {
  if (code == kDone) return;
  if (code > kDone || code < last) throw Error(ErrorKind::kMalformed, "the service's answer is no result");
  throw Error(ErrorKind::kRejected, what);
}

void Check(const TimeRange& range, bool endIsNow) {
  if (range.from < 0 || range.to < 0) throw Error(ErrorKind::kOutOfRange, "a time is negative");
  if (range.to < range.from && !endIsNow) {
    throw Error(ErrorKind::kOutOfRange, "the range of time ends before it begins");
  }
}

void Check(const LogQuery& query) {
  Check(query.range, query.range.to == kNow);
  if (query.maxCount < 0) throw Error(ErrorKind::kOutOfRange, "the number of records is negative");
  if (query.startIndex < -1) throw Error(ErrorKind::kOutOfRange, "the index to start at is negative");
}

/// The service searches from time 0 when a range's end does not lie after its beginning: then what lies before the
/// beginning is taken out here, and only here can the records be counted.
bool SearchesFromZero(const TimeRange& range) {
  return range.to == range.from && range.to != kNow;
}

ipc::LogPackage PackageOf(const LogQuery& query) {
  ipc::LogPackage package;
  package.from = query.range.from;
  package.to = query.range.to;
  package.maxCount = SearchesFromZero(query.range) ? 0 : query.maxCount;
  package.startIndex = query.startIndex;
  return package;
}

/// Brings the records, which ascend, into the query's order and limits.
void Arrange(const LogQuery& query, std::vector<Record>& records) {
  std::erase_if(records, [&query](const Record& record) { return record.timestamp < query.range.from; });
  if (query.reverse) std::reverse(records.begin(), records.end());
  const auto max = static_cast<std::size_t>(query.maxCount);
  if (max != 0 && records.size() > max) records.resize(max);
}

}  // namespace

Client::Client(Options options) : options_(std::move(options)) {}

bool Client::IsEnabled() const {
  return AskState(options_, Method::kGetPyxState, ipc::kPyxStateCode);
}

bool Client::IsLoggingEnabled() const {
  return AskState(options_, Method::kGetLoggingState, ipc::kLoggingStateCode);
}

void Client::Report(std::string_view url, std::string_view threat) const {
  Request request(Method::kLogThreatUrl);
  request.AddText(url, "URL").AddText(threat, "name of the threat");
  ExpectDone(Ask(options_, request, Repeat::kUnlessTaken).Integer(), kNotReceived,
             url.empty() ? "the service does not log an empty URL" : "the service did not store the report");
}

LogStatus Client::GetLogStatus() const {
  return ReadLogStatus(Ask(options_, Request(Method::kGetLogStatus)).Text());
}

std::vector<Record> Client::GetLog(const LogQuery& query) const {
  Check(query);
  Request request(query.reverse ? Method::kGetLogReverse : Method::kGetLog);
  Answer answer = Ask(options_, request.Add(PackageOf(query)));
  const std::int32_t result = answer.Integer();
  if (result == kFailed) return {};
  if (result != kDone) throw Error(ErrorKind::kMalformed, "the service's answer is no result");
  answer.Integer();  // The index of the last record, which the records tell themselves.
  std::vector<Record> records = ReadRecords(answer.Text());
  Arrange(query, records);
  return records;
}

std::int32_t Client::CountRecords(const TimeRange& range) const {
  Check(range, false);
  ipc::FramePackage package;
  package.from = range.from;
  package.to = range.to;
  const std::int32_t count = Ask(options_, Request(Method::kCountRecords).Add(package)).Integer();
  if (count < 0) ExpectDone(count, kFailed, "the service did not count the records");
  return count;
}

void Client::ResetLog() const {
  ExpectDone(Ask(options_, Request(Method::kResetLog)).Integer(), kFailed, "the service could not store the empty log");
}

}  // namespace zav::client
