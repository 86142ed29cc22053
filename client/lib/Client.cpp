#include "Client.h"

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

/// What to do with a request of which nothing tells whether the service has taken it whole.
enum class Repeat { kAlways, kNever, kUntilAnswered };

/// How one attempt at a request ended.
struct Attempt {
  Transfer transfer;
  /// Nothing tells that the service has not taken the request whole.
  bool mayBeTaken;
};

/// @param act  what nothing tells of whether it was done, such as "logged the report".
[[noreturn]] void GiveUp(ErrorKind kind, const char* act) {
  switch (kind) {
    case ErrorKind::kRefused:
      throw Error(kind, "the service is busy and refused every connection");
    case ErrorKind::kUnknownOutcome:
      throw Error(kind, std::string("the service did not say whether it ") + act);
    default:
      throw Error(ErrorKind::kTimedOut, "the service did not answer in time");
  }
}

Attempt Try(Connection& connection, const Request& request, const Deadline& deadline) {
  const Transfer sent = connection.Send(request.bytes(), deadline);
  if (sent != Transfer::kDone) return {sent, false};
  const Transfer answered = connection.AwaitAnswer(deadline);
  if (answered == Transfer::kEnded) return {answered, !connection.LeftUnread(deadline)};
  return {answered, answered == Transfer::kTimedOut};
}

/// One call: the attempts that it takes, on connections of their own.
class Call {
 public:
  /// @param whatIsDone  see `GiveUp`; of what is always repeated nothing needs to be told.
  Call(const Options& settings, const Request& whatIsAsked, Repeat whetherAgain, const Deadline& end,
       const char* whatIsDone = "")
      : options(settings), request(whatIsAsked), repeat(whetherAgain), deadline(end), act(whatIsDone) {}

  /// @return the answer, of which nothing has been read.
  Answer Ask() {
    for (GrowingPause pause; !deadline.Passed(); pause.Take(deadline)) {
      std::optional<Connection> connection = Connect();
      if (!connection) break;
      const Attempt attempt = Try(*connection, request, deadline);
      const ErrorKind late = repeat == Repeat::kAlways ? ErrorKind::kTimedOut : ErrorKind::kUnknownOutcome;
      if (attempt.transfer == Transfer::kDone) return {std::move(*connection), deadline, late};
      if (attempt.mayBeTaken && repeat != Repeat::kAlways) unanswered = ErrorKind::kUnknownOutcome;
      if (attempt.mayBeTaken && repeat == Repeat::kNever) break;
      if (attempt.transfer == Transfer::kTimedOut) break;
      // A service that has refused before and now lets the rest of the time pass is still a busy one.
      if (unanswered != ErrorKind::kUnknownOutcome) unanswered = ErrorKind::kRefused;
    }
    GiveUp(unanswered, act);
  }

 private:
  std::optional<Connection> Connect() const {
    try {
      return Connection::Open(options.socketPath, deadline);
    } catch (const Error&) {
      // That the service is gone says nothing about the attempt before.
      if (unanswered == ErrorKind::kUnknownOutcome) GiveUp(unanswered, act);
      throw;
    }
  }

  const Options& options;
  const Request& request;
  Repeat repeat;
  Deadline deadline;
  const char* act;
  /// What the attempts so far come to when none is answered.
  ErrorKind unanswered = ErrorKind::kTimedOut;
};

Answer Ask(const Options& options, const Request& request, Repeat repeat = Repeat::kAlways, const char* act = "") {
  return Call(options, request, repeat, Deadline(options.timeout), act).Ask();
}

constexpr const char* kLogged = "logged the report";

/// An answer that is cut off tells as little as none.
std::int32_t ReportUntilAnswered(const Options& options, const Request& request) {
  const Deadline deadline(options.timeout);
  bool wasCutOff = false;
  for (GrowingPause pause;; pause.Take(deadline)) {
    try {
      return Call(options, request, Repeat::kUntilAnswered, deadline, kLogged).Ask().Integer();
    } catch (const Error& error) {
      const bool isCutOff = error.kind() == ErrorKind::kMalformed;
      if (isCutOff ? deadline.Passed() : wasCutOff) GiveUp(ErrorKind::kUnknownOutcome, kLogged);
      if (!isCutOff) throw;
      wasCutOff = true;
    }
  }
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

ipc::LogPackage PackageOf(const LogQuery& query) {
  ipc::LogPackage package;
  package.from = query.range.from;
  package.to = query.range.to;
  package.maxCount = query.maxCount;
  package.startIndex = query.startIndex;
  return package;
}

}  // namespace

void Check(const TimeRange& range) {
  if (range.from < 0 || range.to < 0) throw Error(ErrorKind::kOutOfRange, "a time is negative");
  if (range.to < range.from) throw Error(ErrorKind::kOutOfRange, "the range of time ends before it begins");
}

bool Client::IsEnabled() const {
  return AskState(options, Method::kGetPyxState, ipc::kPyxStateCode);
}

bool Client::IsLoggingEnabled() const {
  return AskState(options, Method::kGetLoggingState, ipc::kLoggingStateCode);
}

void Client::Report(std::string_view url, std::string_view threat) const {
  Request request(Method::kLogThreatUrl);
  request.AddText(url, "URL").AddText(threat, "name of the threat");
  const std::int32_t code = options.atLeastOnce ? ReportUntilAnswered(options, request)
                                                : Ask(options, request, Repeat::kNever, kLogged).Integer();
  ExpectDone(code, kNotReceived,
             url.empty() ? "the service does not log an empty URL" : "the service did not store the report");
}

LogStatus Client::GetLogStatus() const {
  return ReadLogStatus(Ask(options, Request(Method::kGetLogStatus)).Text());
}

Piece Client::GetPiece(const LogQuery& query, const Deadline& deadline) const {
  Request request(query.reverse ? Method::kGetLogReverse : Method::kGetLog);
  Answer answer = Call(options, request.Add(PackageOf(query)), Repeat::kAlways, deadline).Ask();
  const std::int32_t result = answer.Integer();
  if (result == kFailed) return {};
  if (result != kDone) throw Error(ErrorKind::kMalformed, "the service's answer is no result");
  Piece piece;
  piece.lastIndex = answer.Integer();
  // The service ends the connection in place of a text that is longer than it may send.
  if (answer.HasEnded()) {
    if (piece.lastIndex < 0) throw Error(ErrorKind::kMalformed, "the service's answer names no record");
    piece.isTooLarge = true;
    return piece;
  }
  piece.records = ReadRecords(answer.Text());
  if (query.reverse) std::reverse(piece.records.begin(), piece.records.end());
  return piece;
}

std::int32_t Client::CountRecords(const TimeRange& range) const {
  Check(range);
  ipc::FramePackage package;
  package.from = range.from;
  package.to = range.to;
  const std::int32_t count = Ask(options, Request(Method::kCountRecords).Add(package)).Integer();
  if (count < 0) ExpectDone(count, kFailed, "the service did not count the records");
  return count;
}

void Client::ResetLog() const {
  // Repeated, it may delete what came meanwhile.
  Answer answer = Ask(options, Request(Method::kResetLog), Repeat::kNever, "emptied the log");
  ExpectDone(answer.Integer(), kFailed, "the service could not store the empty log");
}

}  // namespace zav::client
