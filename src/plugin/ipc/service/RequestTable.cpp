#include "ipc/service/RequestTable.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <mutex>
#include <string>

#include "ipc/service/Package.h"
#include "pyx/State.h"

namespace zav::ipc {
namespace {

using pyx::LogOrder;
using pyx::LogQuery;
using pyx::LogSlice;
using pyx::State;

constexpr int kDone = 0;
constexpr int kFailed = -1;
constexpr int kNotReceived = -2;

int Now() {
  return static_cast<int>(time(nullptr));
}

bool Receive(Request& request, std::string& text) {
  return request.socket.receiveContainer(&text) == kSocketOk;
}

template <class P>
bool Receive(Request& request, P& package) {
  PackageBytes<P> bytes{};
  unsigned size = P::kSize;
  if (request.socket.receiveValue(size, bytes.data()) != kSocketOk) return false;
  package = Decode<P>(bytes);
  return true;
}

bool Reply(Request& request, int value) {
  request.connection.replyStarts();
  return request.socket.sendValue(&value) == kSocketOk;
}

bool Reply(Request& request, std::string text) {
  request.connection.replyStarts();
  return request.socket.sendContainer(&text) == kSocketOk;
}

void Reply(Request& request, const StatePackage& package) {
  if (request.socket.descriptor() == -1) return;
  const auto bytes = Encode(package);
  request.connection.replyStarts();
  request.socket.sendValue(static_cast<unsigned>(bytes.size()), bytes.data());
}

/// Answers with a switch of the state, read under the state's lock.
void ReplySwitch(Request& request, std::int32_t code, State::Enum (State::*read)() const) {
  request.connection.requestReceived();
  StatePackage package;
  package.code = code;
  {
    State& state = State::Instance();
    const std::lock_guard guard(state.Mutex());
    package.state = (state.*read)();
  }
  Reply(request, package);
}

void GetPyxState(Request& request) {
  ReplySwitch(request, kPyxStateCode, &State::PyxState);
}

void GetLoggingState(Request& request) {
  ReplySwitch(request, kLoggingStateCode, &State::LoggingState);
}

void LogThreatUrl(Request& request) {
  std::string url;
  std::string threat;
  if (!Receive(request, url) || !Receive(request, threat)) {
    Reply(request, kNotReceived);
    return;
  }
  request.connection.requestReceived();
  const int now = Now();
  State& state = State::Instance();
  int result = kFailed;
  {
    const std::lock_guard guard(state.Mutex());
    result = state.LogThreatUrl(url, threat, now);
  }
  Reply(request, result);
}

void GetLogStatus(Request& request) {
  request.connection.requestReceived();
  Reply(request, State::Instance().GetLogStatusText());
}

LogQuery MakeQuery(const LogPackage& package) {
  return {package.from, package.to == 0 ? Now() : package.to, package.maxCount, package.startIndex};
}

void GetRecords(Request& request, LogOrder order) {
  LogPackage package;
  if (!Receive(request, package)) {
    Reply(request, kFailed);
    return;
  }
  request.connection.requestReceived();
  LogSlice slice;
  {
    State& state = State::Instance();
    const std::lock_guard guard(state.Mutex());
    slice = state.FindRecords(MakeQuery(package), order);
  }
  if (slice.records.empty()) {
    Reply(request, kFailed);
    return;
  }
  if (Reply(request, kDone) && Reply(request, slice.lastIndex)) Reply(request, std::move(slice.records));
}

void GetLog(Request& request) {
  GetRecords(request, LogOrder::kOldestFirst);
}

void GetLogReverse(Request& request) {
  GetRecords(request, LogOrder::kNewestFirst);
}

void ResetLog(Request& request) {
  request.connection.requestReceived();
  Reply(request, State::Instance().ResetLog() == 0 ? kDone : kFailed);
}

void CountRecords(Request& request) {
  FramePackage package;
  if (!Receive(request, package)) {
    Reply(request, kFailed);
    return;
  }
  request.connection.requestReceived();
  int count = 0;
  {
    State& state = State::Instance();
    const std::lock_guard guard(state.Mutex());
    count = state.CountRecords(package.from, package.to);
  }
  Reply(request, count);
}

struct Entry {
  Method method;
  RequestHandler handler;
};

constexpr std::array kRequests{
    Entry{Method::kGetPyxState, GetPyxState},
    Entry{Method::kGetLoggingState, GetLoggingState},
    Entry{Method::kLogThreatUrl, LogThreatUrl},
    Entry{Method::kGetLogStatus, GetLogStatus},
    Entry{Method::kGetLog, GetLog},
    Entry{Method::kGetLogReverse, GetLogReverse},
    Entry{Method::kResetLog, ResetLog},
    Entry{Method::kCountRecords, CountRecords},
};

}  // namespace

RequestHandler FindRequestHandler(std::int32_t method) {
  const auto entry = std::find_if(kRequests.begin(), kRequests.end(), [method](const Entry& each) {
    return static_cast<std::int32_t>(each.method) == method;
  });
  return entry != kRequests.end() ? entry->handler : nullptr;
}

}  // namespace zav::ipc
