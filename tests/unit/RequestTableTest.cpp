#include "ipc/service/RequestTable.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <map>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "ipc/service/Service.h"
#include "pyx/State.h"
#include "support/LogRecorder.h"
#include "support/StateInMemory.h"
#include "support/StoredState.h"
#include "support/SystemCalls.h"
#include "support/WaitUntil.h"

namespace zav::ipc {
namespace {

using pyx::State;
using test::InMemory;
using test::kDebug;
using test::kError;
using test::LinesFrom;
using test::LinesOf;
using test::LogEntry;
using test::LogRecorder;
using test::Now;
using test::Parsed;
using test::PluginLine;
using test::PrepareDevice;
using test::Record;
using test::Row;
using test::SetInMemory;
using test::StoredLog;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

const std::vector<std::int32_t> kAllMethods{4, 5, 6, 16, 17, 18, 19, 20};

// What stands on the wire, spelled out

/// 32-bit integers in host byte order.
std::string Words(std::initializer_list<std::int32_t> words) {
  std::string bytes;
  for (const std::int32_t word : words) bytes.append(reinterpret_cast<const char*>(&word), sizeof(word));
  return bytes;
}

std::string String(const std::string& text) {
  return Words({static_cast<std::int32_t>(text.size())}) + text;
}

std::string Header(std::int32_t method, std::int32_t tag = 8, std::int32_t module = 0) {
  return Words({0, module, tag, method});
}

std::string Report(const std::string& url, const std::string& threat) {
  return Header(6) + String(url) + String(threat);
}

struct Range {
  int from = 0;
  int to = 0;
  int maxCount = 0;
  int start = -1;
};

std::string Log(std::int32_t method, const Range& range) {
  return Header(method) + Words({0, 0, range.from, range.to, range.maxCount, range.start});
}

std::string Count(int from, int to) {
  return Header(20) + Words({0, 0, from, to});
}

/// A whole request of every method.
std::string Request(std::int32_t method) {
  if (method == 6) return Report("http://u", "T");
  if (method == 17 || method == 18) return Log(method, {});
  if (method == 20) return Count(0, INT_MAX);
  return Header(method);
}

/// The answer of methods 17 and 18.
std::string Found(int lastIndex, const Json::Value& records) {
  return Words({0, lastIndex}) + String(test::Text(records) + "\n");
}

/// The answer for want of a record.
const std::string kNone = Words({-1});

/// What the client does once it has sent its request.
enum class Client { kWaits, kEndsSending, kCloses };

class ARequest : public testing::Test {
 protected:
  State& Start(const StoredLog& log = {}) {
    PrepareDevice(log);
    State& state = State::Instance();
    test::NoteWrites();
    LogRecorder::Clear();
    return state;
  }

  /// Serves a connection, as the accept loop would. @return all that the client got.
  std::string Serve(const std::string& request, Client client = Client::kEndsSending) {
    std::array<int, 2> ends{};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    EXPECT_EQ(send(ends[0], request.data(), request.size(), 0), static_cast<ssize_t>(request.size()));
    if (client == Client::kEndsSending) shutdown(ends[0], SHUT_WR);
    if (client == Client::kCloses) close(ends[0]);
    served = ends[1];
    ServeDescriptor(served);
    EXPECT_EQ(fcntl(served, F_GETFD), -1) << "the connection is open";
    if (client == Client::kCloses) return {};
    std::string answer = All(ends[0]);
    close(ends[0]);
    return answer;
  }

  /// The service is busy with the connection, and free again after it.
  void ServeDescriptor(int fd) {
    EXPECT_TRUE(serviceMutex.try_lock());
    serviceBusy = true;
    service.serve(fd);
    EXPECT_FALSE(serviceBusy);
    EXPECT_TRUE(serviceMutex.try_lock());
    serviceMutex.unlock();
  }

  // The lines of the connection that was served last.

  testing::Matcher<LogEntry> MethodLine(std::int32_t method, std::int32_t module = 0) const {
    return PluginLine(
        kDebug, "Service.cpp", "serve",
        std::to_string(served) + " method : " + std::to_string(method) + " module : " + std::to_string(module));
  }

  testing::Matcher<LogEntry> TransportError(const std::string& message) const {
    return PluginLine(kError, "Socket.cpp", "analyseResult", Type() + std::to_string(served) + " " + message);
  }

  /// The line that refuses a connection.
  testing::Matcher<LogEntry> RefusedLine(const testing::Matcher<std::string>& text) const {
    return PluginLine(kError, "Service.cpp", "serve", text);
  }

  testing::Matcher<LogEntry> ClosedLine() const {
    return PluginLine(kDebug, "Socket.cpp", "~Socket", Type() + ": " + std::to_string(served));
  }

  static std::string Type() { return "N3zav3ipc6SocketE "; }

  Service service;
  /// The service's end of the last connection.
  int served = -1;

 private:
  static std::string All(int fd) {
    std::string bytes;
    std::array<char, 4096> piece{};
    ssize_t count = 0;
    while ((count = recv(fd, piece.data(), piece.size(), 0)) > 0)
      bytes.append(piece.data(), static_cast<size_t>(count));
    return bytes;
  }
};

// The header

TEST_F(ARequest, IsLoggedWithMethodAndModuleAndClosedAfterItsAnswer) {
  Start();
  EXPECT_EQ(Serve(Header(4, 8, -7)), Words({0, 301, 1}));
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(MethodLine(4, -7), ClosedLine()));
}

TEST_F(ARequest, IsServedWhateverTheFirstFourBytesOfItsHeaderAre) {
  Start();
  EXPECT_EQ(Serve(Words({0x5A5A5A5A, 0, 8, 5})), Words({0, 1301, 1}));
}

TEST_F(ARequest, WithAnotherTagThan8IsRefusedWithTheErrorLineAlone) {
  Start();
  for (const std::int32_t tag : {0, 7, 9, -8, 0x08000000, INT_MIN}) {
    SCOPED_TRACE(tag);
    LogRecorder::Clear();
    EXPECT_EQ(Serve(Header(4, tag)), "");
    EXPECT_THAT(LogRecorder::Lines(), ElementsAre(RefusedLine(StartsWith(std::to_string(served) + " ")), ClosedLine()));
  }
}

TEST_F(ARequest, WhoseHeaderEndsEarlyIsRefusedWithoutAnAnswer) {
  Start();
  for (size_t size = 0; size < 16; ++size) {
    SCOPED_TRACE(size);
    LogRecorder::Clear();
    EXPECT_EQ(Serve(Header(4).substr(0, size)), "");
    EXPECT_THAT(LogRecorder::Lines(), ElementsAre(TransportError("size wrong : " + std::to_string(size) + " != 16"),
                                                  RefusedLine(StartsWith(std::to_string(served) + " ")), ClosedLine()));
  }
}

TEST_F(ARequest, WhoseHeaderComesInPiecesIsNotWaitedFor) {
  Start();
  EXPECT_EQ(Serve(Header(4).substr(0, 12), Client::kWaits), "");
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(TransportError("size wrong : 12 != 16"),
                                                RefusedLine(StartsWith(std::to_string(served) + " ")), ClosedLine()));
}

TEST_F(ARequest, ThatCannotBeReceivedIsRefusedWithTheSystemsErrorText) {
  Start();
  served = open("/dev/null", O_RDONLY | O_CLOEXEC);
  ServeDescriptor(served);
  const std::string text = std::strerror(ENOTSOCK);
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(TransportError(text), RefusedLine(std::to_string(served) + " " + text), ClosedLine()));
}

TEST_F(ARequest, OnNoDescriptorIsRefused) {
  Start();
  ServeDescriptor(-1);
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(RefusedLine(StartsWith("-1 ")),
                          PluginLine(kError, "Socket.cpp", "~Socket", "N3zav3ipc6SocketE socket descriptor is wrong")));
}

TEST_F(ARequest, OfMethods0To3And7To15And21UpwardIsNotImplementedAndNotAnswered) {
  Start();
  for (const std::int32_t method :
       {0, 1, 2, 3, 7, 8, 9, 10, 11, 12, 13, 14, 15, 21, 22, 260, 0x04000000, INT_MAX, -1, -4, INT_MIN}) {
    SCOPED_TRACE(method);
    LogRecorder::Clear();
    EXPECT_EQ(FindRequestHandler(method), nullptr);
    EXPECT_EQ(Serve(Header(method)), "");
    EXPECT_THAT(LogRecorder::Lines(),
                ElementsAre(MethodLine(method), PluginLine(kError, "Service.cpp", "switchMethod", "not implemented"),
                            ClosedLine()));
  }
}

TEST_F(ARequest, OfAKnownMethodHasAHandler) {
  for (const std::int32_t method : kAllMethods) EXPECT_NE(FindRequestHandler(method), nullptr) << method;
}

// What may go wrong in every method

TEST_F(ARequest, IsLoggedBeforeTheStateIsMade) {
  PrepareDevice();
  Serve(Header(4));
  const auto lines = LinesOf({"Service.cpp", "DBStorage.cpp", "Socket.cpp"});
  ASSERT_GT(lines.size(), 2u);
  EXPECT_THAT(lines.front(), MethodLine(4));
  EXPECT_THAT(lines.back(), ClosedLine());
}

TEST_F(ARequest, OfNoKnownMethodNeedsNoState) {
  Serve(Header(7));
  EXPECT_THAT(LinesOf({"DBStorage.cpp", "Manager.cpp"}), IsEmpty());
}

TEST_F(ARequest, ForWhichThereIsNoStateEndsWithTheErrorAndWithoutAnAnswer) {
  test::MakeStorageDirectory();
  for (const std::int32_t method : kAllMethods) {
    SCOPED_TRACE(method);
    // Without tables and without a default policy there is nothing to start from.
    std::remove(test::kDatabase.c_str());
    LogRecorder::Clear();
    EXPECT_EQ(Serve(Request(method)), "");
    EXPECT_THAT(LinesFrom(test::kWarning),
                ElementsAre(PluginLine(kError, "Manager.cpp", "DefaultPolicy", "Failed to read default policy"),
                            PluginLine(kError, "Service.cpp", "serve", "Default policy is empty")));
    EXPECT_THAT(LogRecorder::Lines().back(), ClosedLine());
  }
  EXPECT_EQ(Serve(Header(4)), Words({0, 301, 1})) << "the next request has a state";
}

TEST_F(ARequest, TakesTheStatesLockWhateverItsMethodIsAndEndsWhereItCannot) {
  State& state = Start({.records = {{"0", Record("u", "T", Now())}}});
  const test::UnlockableState unlockable(state);
  for (const std::int32_t method : kAllMethods) {
    SCOPED_TRACE(method);
    LogRecorder::Clear();
    EXPECT_EQ(Serve(Request(method)), "");
    EXPECT_THAT(LogRecorder::Lines(),
                ElementsAre(MethodLine(method), PluginLine(kError, "Service.cpp", "serve", std::strerror(EAGAIN)),
                            ClosedLine()));
  }
}

/// Makes what the service sends throw, not what the client does.
template <class Thrown>
test::CallHook::Action ThrowOn(const int& descriptor, Thrown thrown) {
  return [&descriptor, thrown](const test::CallArguments& call) -> std::optional<long> {
    if (call.fd == descriptor) throw thrown;
    return std::nullopt;
  };
}

TEST_F(ARequest, ThatMeetsAnExceptionEndsWithItsTextAndWithoutAnAnswer) {
  Start();
  const test::CallHook hook(test::Call::kSend, ThrowOn(served, std::bad_alloc()));
  EXPECT_EQ(Serve(Header(4)), "");
  EXPECT_THAT(
      LogRecorder::Lines(),
      ElementsAre(MethodLine(4), PluginLine(kError, "Service.cpp", "serve", std::bad_alloc().what()), ClosedLine()));
}

TEST_F(ARequest, ThatMeetsAnExceptionOfNoStandardTypeEndsLikewise) {
  Start();
  const test::CallHook hook(test::Call::kSend, ThrowOn(served, 7));
  EXPECT_EQ(Serve(Header(4)), "");
  EXPECT_THAT(LogRecorder::Lines().back(), ClosedLine());
}

/// Makes one of the calls on a descriptor fail.
test::CallHook::Action FailAt(int turn, const int& descriptor) {
  return [turn, &descriptor](const test::CallArguments& call) mutable -> std::optional<long> {
    if (call.fd != descriptor || --turn != 0) return std::nullopt;
    errno = EPIPE;
    return -1;
  };
}

TEST_F(ARequest, OfMethods17And18EndsItsAnswerWithThePartThatCannotBeSent) {
  Start({.count = 1, .lastIndex = 0, .records = {{"0", Record("u", "T", Now())}}});
  for (const std::int32_t method : {17, 18}) {
    for (const int part : {1, 2, 3}) {
      SCOPED_TRACE(std::to_string(method) + " part " + std::to_string(part));
      const test::CallHook hook(test::Call::kSend, FailAt(part, served));
      EXPECT_EQ(Serve(Request(method)), Words({0, 0}).substr(0, 4 * static_cast<size_t>(part - 1)));
    }
  }
}

TEST_F(ARequest, WhoseClientIsGoneEndsWithTheFirstPartOfTheAnswer) {
  Start({.records = {{"0", Record("u", "T", Now())}}});
  for (const std::int32_t method : kAllMethods) {
    SCOPED_TRACE(method);
    LogRecorder::Clear();
    Serve(Request(method), Client::kCloses);
    EXPECT_THAT(LinesOf({"Service.cpp", "Socket.cpp", "SocketSend.cpp", "SocketReceive.cpp"}),
                ElementsAre(MethodLine(method), TransportError(std::strerror(EPIPE)), ClosedLine()));
  }
}

TEST_F(ARequest, WhoseClientIsGoneIsCarriedOutAllTheSame) {
  State& state = Start();
  Serve(Report("http://u", "T"), Client::kCloses);
  EXPECT_EQ(Row("Storage")["0"]["url"], "http://u");
  Serve(Header(19), Client::kCloses);
  EXPECT_FALSE(InMemory(state).isMember("0"));
}

TEST_F(ARequest, OnADeadSocketSendsNothing) {
  State& state = Start();
  for (const std::int32_t method : {4, 5, 6, 16, 19}) {
    SCOPED_TRACE(method);
    LogRecorder::Clear();
    Socket socket;
    ServedConnection connection;
    ipc::Request request{socket, connection};
    FindRequestHandler(method)(request);
    EXPECT_THAT(LinesOf({"Socket.cpp", "SocketSend.cpp", "SocketReceive.cpp"}), IsEmpty());
  }
  EXPECT_EQ(InMemory(state), StoredLog().Value());
}

TEST_F(ARequest, FollowedByFurtherBytesIsServedAllTheSame) {
  Start();
  EXPECT_EQ(Serve(Header(4) + Header(5)), Words({0, 301, 1}));
}

// Methods 4 and 5

TEST_F(ARequest, OfMethod4IsAnsweredWithTheFeaturesState) {
  State& state = Start();
  EXPECT_EQ(Serve(Header(4)), Words({0, 301, 1}));
  state.ApplyPyxState(State::Disabled);
  EXPECT_EQ(Serve(Header(4)), Words({0, 301, 0}));
}

TEST_F(ARequest, OfMethod5IsAnsweredWithTheLoggingState) {
  State& state = Start();
  EXPECT_EQ(Serve(Header(5)), Words({0, 1301, 1}));
  state.ApplyLoggingState(State::Disabled);
  EXPECT_EQ(Serve(Header(5)), Words({0, 1301, 0}));
}

// Method 6

TEST_F(ARequest, OfMethod6StoresTheVisitWithTheCurrentTime) {
  State& state = Start();
  const int before = Now();
  EXPECT_EQ(Serve(Report("http://bad/", "Phishing")), Words({0}));
  const Json::Value record = Row("Storage")["0"];
  EXPECT_EQ(record["url"], "http://bad/");
  EXPECT_EQ(record["threat"], "Phishing");
  EXPECT_GE(record["timestamp"].asInt(), before);
  EXPECT_LE(record["timestamp"].asInt(), Now());
  EXPECT_EQ(InMemory(state)["state"], Parsed(R"({"count":1,"last_index":0,"Phishing":1})"));
}

TEST_F(ARequest, OfMethod6WithAnEmptyUrlIsAnsweredMinus1AndStoresNothing) {
  State& state = Start();
  EXPECT_EQ(Serve(Report("", "Phishing")), Words({-1}));
  EXPECT_EQ(InMemory(state), StoredLog().Value());
  EXPECT_THAT(test::Writes(), IsEmpty());
}

TEST_F(ARequest, OfMethod6WithAnEmptyThreatIsStoredAndCountedAsUndefined) {
  Start();
  EXPECT_EQ(Serve(Report("http://bad/", "")), Words({0}));
  EXPECT_EQ(Row("Storage")["0"]["threat"], "undefined");
  EXPECT_EQ(Row("Storage")["state"], Parsed(R"({"count":1,"last_index":0,"undefined":1})"));
}

TEST_F(ARequest, OfMethod6IsStoredThoughLoggingIsOff) {
  State& state = Start();
  state.ApplyLoggingState(State::Disabled);
  EXPECT_EQ(Serve(Report("http://bad/", "T")), Words({0}));
  EXPECT_EQ(Row("Storage")["0"]["url"], "http://bad/");
}

TEST_F(ARequest, OfMethod6IsStoredThoughTheFeatureIsOff) {
  State& state = Start();
  state.ApplyPyxState(State::Disabled);
  EXPECT_EQ(Serve(Report("http://bad/", "T")), Words({0}));
}

TEST_F(ARequest, OfMethod6ThatEndsAnywhereAfterItsHeaderIsAnsweredMinus2AndStoresNothing) {
  PrepareDevice();
  const std::string whole = Report("http://bad/", "Phishing");
  for (size_t size = 16; size < whole.size(); ++size) {
    SCOPED_TRACE(size);
    EXPECT_EQ(Serve(whole.substr(0, size)), Words({-2}));
  }
  EXPECT_THAT(LinesOf({"DBStorage.cpp"}), IsEmpty()) << "no state is needed";
  EXPECT_EQ(Row("Storage"), StoredLog().Value());
}

TEST_F(ARequest, OfMethod6ThatEndsInItsUrlIsToldByTheTransport) {
  Start();
  EXPECT_EQ(Serve(Header(6) + Words({20}) + "http"), Words({-2}));
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(MethodLine(6),
                                                PluginLine(kError, "SocketReceive.cpp", "receiveData",
                                                           Type() + std::to_string(served) + " wrong size received"),
                                                TransportError("size wrong : 4 != 20"), ClosedLine()));
}

TEST_F(ARequest, OfMethod6WithAnOverlongUrlIsTakenForOneWithoutUrlAndWhatFollowsForItsThreat) {
  State& state = Start();
  EXPECT_EQ(Serve(Header(6) + Words({16777217}) + String("T")), Words({-1}));
  EXPECT_EQ(InMemory(state), StoredLog().Value());
  EXPECT_THAT(LinesFrom(test::kWarning), ElementsAre(PluginLine(kError, "SocketReceive.cpp", "receiveContainer",
                                                                "16777217 is over limit 16777216")));
}

TEST_F(ARequest, OfMethod6WithAnOverlongUrlSentWholeTakesItsBytesForALength) {
  State& state = Start();
  EXPECT_EQ(Serve(Header(6) + Words({-1}) + "http://bad/"), Words({-1}));
  EXPECT_EQ(InMemory(state), StoredLog().Value());
  EXPECT_EQ(LogRecorder::Count("4294967295 is over limit 16777216"), 1);
  EXPECT_EQ(LogRecorder::Count("1886680168 is over limit 16777216"), 1) << "\"http\"";
}

TEST_F(ARequest, OfMethod6WithAnOverlongThreatIsStoredAsUndefined) {
  Start();
  EXPECT_EQ(Serve(Header(6) + String("http://bad/") + Words({INT_MIN})), Words({0}));
  EXPECT_EQ(Row("Storage")["0"]["threat"], "undefined");
  EXPECT_EQ(LogRecorder::Count("2147483648 is over limit 16777216"), 1);
}

TEST_F(ARequest, OfMethod6ThatCannotBeSavedIsAnsweredMinus1AndWrittenByTheNextOne) {
  State& state = Start();
  test::RefuseWrites("Storage");
  EXPECT_EQ(Serve(Report("http://first/", "T")), Words({-1}));
  EXPECT_EQ(InMemory(state)["0"]["url"], "http://first/");
  EXPECT_FALSE(Row("Storage").isMember("0"));
  test::AllowWrites();
  EXPECT_EQ(Serve(Report("http://second/", "T")), Words({0}));
  EXPECT_EQ(Row("Storage")["0"]["url"], "http://first/");
  EXPECT_EQ(Row("Storage")["1"]["url"], "http://second/");
}

TEST_F(ARequest, OfMethod6DropsOutdatedRecordsFirst) {
  State& state = Start({.maxLoggingPeriod = 3600});
  SetInMemory(state, "1", Record("old", "T", Now() - 4000));
  EXPECT_EQ(Serve(Report("", "T")), Words({-1}));
  EXPECT_FALSE(InMemory(state).isMember("1"));
}

TEST_F(ARequest, OfMethod6HoldsTheLockUntilTheRecordIsSaved) {
  State& state = Start();
  test::HeldSave held;
  std::thread thread([&] { Serve(Report("http://bad/", "T")); });
  EXPECT_TRUE(test::WaitUntil([] { return Row("Storage").isMember("0"); }));
  EXPECT_FALSE(state.Mutex().try_lock());
  held.Release();
  thread.join();
}

// Method 16

TEST_F(ARequest, OfMethod16IsAnsweredWithTheTextOfTheStatus) {
  State& state = Start({.count = 2, .lastIndex = 1, .records = {{"1", Record("u", "T", Now())}}});
  const std::string text = R"({"config":{"max_file_size":10,"max_index":2000,"max_logging_period":864000},)"
                           R"("in_storage":{"T":1,"count":1},"state":{"count":2}})"
                           "\n";
  EXPECT_EQ(Serve(Header(16)), String(text));
  EXPECT_EQ(state.GetLogStatus().AsString(), text);
}

TEST_F(ARequest, OfMethod16ForAStatusThatIsNullIsAnsweredWithAnEmptyText) {
  State& state = Start();
  SetInMemory(state, Json::Value());
  EXPECT_EQ(Serve(Header(16)), String(""));
}

// Methods 17 and 18

/// The time stamp of the first of the records that are looked for.
const int kBase = Now() - 10000;

/// Records under their indexes, each stamped `kBase` plus its index.
std::map<std::string, Json::Value> Stamped(std::initializer_list<int> indexes) {
  std::map<std::string, Json::Value> records;
  for (const int index : indexes) {
    const std::string key = std::to_string(index);
    records[key] = Record("http://" + key, "T", kBase + index);
  }
  return records;
}

class ASearch : public ARequest {
 protected:
  /// The answer that names some of the records that were stored.
  Json::Value Stored(std::initializer_list<int> indexes) {
    Json::Value found(Json::objectValue);
    for (const auto& [key, record] : Stamped(indexes)) found[key] = record;
    return found;
  }
};

TEST_F(ASearch, FindsTheRecordsOldestFirst) {
  Start({.lastIndex = 11, .records = Stamped({9, 10, 11})});
  EXPECT_EQ(Serve(Log(17, {})), Found(11, Stored({9, 10, 11})));
}

TEST_F(ASearch, FindsTheRecordsNewestFirst) {
  Start({.lastIndex = 11, .records = Stamped({9, 10, 11})});
  EXPECT_EQ(Serve(Log(18, {})), Found(9, Stored({9, 10, 11})));
}

TEST_F(ASearch, FindsWholeRecords) {
  StoredLog log{.lastIndex = 1, .records = Stamped({1})};
  log.records["1"]["other"] = "x";
  Start(log);
  Json::Value found(Json::objectValue);
  found["1"] = log.records["1"];
  EXPECT_EQ(Serve(Log(17, {})), Found(1, found));
}

TEST_F(ASearch, WithoutAMatchIsAnsweredWithTheSingleIntMinus1) {
  Start({.lastIndex = 3, .records = Stamped({1, 2, 3})});
  for (const std::int32_t method : {17, 18}) EXPECT_EQ(Serve(Log(method, {.from = 5, .to = 6})), kNone) << method;
}

TEST_F(ASearch, OfAnEmptyLogIsAnsweredWithTheSingleIntMinus1) {
  Start();
  for (const std::int32_t method : {17, 18}) EXPECT_EQ(Serve(Log(method, {})), kNone) << method;
}

TEST_F(ASearch, IncludesBothItsTimes) {
  Start({.lastIndex = 5, .records = Stamped({1, 2, 3, 4, 5})});
  EXPECT_EQ(Serve(Log(17, {.from = kBase + 2, .to = kBase + 4})), Found(4, Stored({2, 3, 4})));
  EXPECT_EQ(Serve(Log(18, {.from = kBase + 2, .to = kBase + 4})), Found(2, Stored({2, 3, 4})));
}

TEST_F(ASearch, WithToTime0UsesTheCurrentTime) {
  StoredLog log{.lastIndex = 2, .records = Stamped({1})};
  log.records["2"] = Record("http://future", "T", Now() + 5000);
  Start(log);
  EXPECT_EQ(Serve(Log(17, {})), Found(1, Stored({1})));
  EXPECT_EQ(Serve(Log(18, {})), Found(1, Stored({1})));
}

TEST_F(ASearch, WithAToTimeNotAfterItsFromTimeSearchesFromTime0) {
  Start({.lastIndex = 3, .records = Stamped({1, 2, 3})});
  for (const std::int32_t method : {17, 18}) {
    const int last = method == 17 ? 2 : 1;
    EXPECT_EQ(Serve(Log(method, {.from = kBase + 2, .to = kBase + 2})), Found(last, Stored({1, 2}))) << method;
    EXPECT_EQ(Serve(Log(method, {.from = kBase + 3, .to = kBase + 2})), Found(last, Stored({1, 2}))) << method;
  }
}

TEST_F(ASearch, FromTime0FindsRecordsStampedZeroAndNoneFromBefore) {
  State& state = Start({.lastIndex = 3, .records = Stamped({1})});
  SetInMemory(state, "2", Record("u", "T", 0));
  SetInMemory(state, "3", Record("u", "T", -1));
  Json::Value found = Stored({1});
  found["2"] = Record("u", "T", 0);
  EXPECT_EQ(Serve(Log(17, {.from = INT_MAX})), Found(2, found));
  EXPECT_EQ(Serve(Log(18, {.from = INT_MAX})), Found(1, found));
}

TEST_F(ASearch, WithToTime0AndAFromTimeInTheFutureSearchesFromTime0UntilNow) {
  Start({.lastIndex = 3, .records = Stamped({1, 2, 3})});
  EXPECT_EQ(Serve(Log(17, {.from = INT_MAX})), Found(3, Stored({1, 2, 3})));
  EXPECT_EQ(Serve(Log(18, {.from = INT_MAX})), Found(1, Stored({1, 2, 3})));
}

TEST_F(ASearch, WithAMaximumCountEndsWithTheRecordThatReachesIt) {
  Start({.lastIndex = 11, .records = Stamped({8, 9, 10, 11})});
  EXPECT_EQ(Serve(Log(17, {.maxCount = 2})), Found(9, Stored({8, 9})));
  EXPECT_EQ(Serve(Log(18, {.maxCount = 2})), Found(10, Stored({10, 11})));
}

TEST_F(ASearch, WithAMaximumCountOf1FindsOne) {
  Start({.lastIndex = 11, .records = Stamped({8, 9, 10, 11})});
  EXPECT_EQ(Serve(Log(17, {.maxCount = 1})), Found(8, Stored({8})));
  EXPECT_EQ(Serve(Log(18, {.maxCount = 1})), Found(11, Stored({11})));
}

TEST_F(ASearch, CountsTheMatchesAloneAgainstItsMaximum) {
  Start({.lastIndex = 5, .records = Stamped({1, 2, 3, 4, 5})});
  EXPECT_EQ(Serve(Log(17, {.from = kBase + 3, .to = kBase + 9, .maxCount = 2})), Found(4, Stored({3, 4})));
  EXPECT_EQ(Serve(Log(18, {.from = kBase, .to = kBase + 3, .maxCount = 2})), Found(2, Stored({2, 3})));
}

TEST_F(ASearch, WithAMaximumCountOfAsManyRecordsAsThereAreFindsAll) {
  Start({.lastIndex = 3, .records = Stamped({1, 2, 3})});
  EXPECT_EQ(Serve(Log(17, {.maxCount = 3})), Found(3, Stored({1, 2, 3})));
  EXPECT_EQ(Serve(Log(17, {.maxCount = INT_MAX})), Found(3, Stored({1, 2, 3})));
}

TEST_F(ASearch, StartsAtTheGivenIndex) {
  Start({.lastIndex = 9, .records = Stamped({1, 5, 9})});
  EXPECT_EQ(Serve(Log(17, {.start = 5})), Found(9, Stored({5, 9})));
  EXPECT_EQ(Serve(Log(18, {.start = 5})), Found(1, Stored({1, 5})));
}

TEST_F(ASearch, StartsAtIndex0WhereThatIsGiven) {
  Start({.lastIndex = 9, .records = Stamped({0, 5, 9})});
  EXPECT_EQ(Serve(Log(17, {.start = 0})), Found(9, Stored({0, 5, 9})));
  EXPECT_EQ(Serve(Log(18, {.start = 0})), Found(0, Stored({0})));
}

TEST_F(ASearch, StartsBetweenTheIndexesThatAreThere) {
  Start({.lastIndex = 9, .records = Stamped({1, 5, 9})});
  EXPECT_EQ(Serve(Log(17, {.start = 4})), Found(9, Stored({5, 9})));
  EXPECT_EQ(Serve(Log(18, {.start = 6})), Found(1, Stored({1, 5})));
}

TEST_F(ASearch, StartsAtItsEndForAnIndexThatIsNegativeOrAboveTheHighestOne) {
  Start({.maxIndex = 20, .lastIndex = 9, .records = Stamped({1, 9})});
  for (const int start : {-1, -5, INT_MIN, 21, INT_MAX}) {
    EXPECT_EQ(Serve(Log(17, {.start = start})), Found(9, Stored({1, 9}))) << start;
    EXPECT_EQ(Serve(Log(18, {.start = start})), Found(1, Stored({1, 9}))) << start;
  }
}

TEST_F(ASearch, StartsAtTheHighestIndexWhereThatIsGiven) {
  Start({.maxIndex = 20, .lastIndex = 9, .records = Stamped({1, 9})});
  EXPECT_EQ(Serve(Log(17, {.start = 20})), kNone);
  EXPECT_EQ(Serve(Log(18, {.start = 20})), Found(1, Stored({1, 9})));
}

TEST_F(ASearch, BackwardsFromBelowTheFirstIndexFindsNothing) {
  Start({.lastIndex = 9, .records = Stamped({5, 9})});
  EXPECT_EQ(Serve(Log(18, {.start = 4})), kNone);
}

TEST_F(ASearch, ForwardsEndsAtTheLastIndexAndBackwardsStartsThere) {
  Start({.lastIndex = 5, .records = Stamped({1, 5, 9})});
  EXPECT_EQ(Serve(Log(17, {})), Found(5, Stored({1, 5})));
  EXPECT_EQ(Serve(Log(17, {.start = 9})), kNone);
  EXPECT_EQ(Serve(Log(18, {})), Found(1, Stored({1, 5})));
  EXPECT_EQ(Serve(Log(18, {.start = 9})), Found(1, Stored({1, 5, 9})));
}

TEST_F(ASearch, WithoutAFirstIndexFindsNothingButForwardsFromAGivenOne) {
  Start({.maxIndex = 5000, .lastIndex = 2000, .records = Stamped({2000})});
  EXPECT_EQ(Serve(Log(17, {})), kNone);
  EXPECT_EQ(Serve(Log(17, {.start = 1990})), Found(2000, Stored({2000})));
  EXPECT_EQ(Serve(Log(18, {})), kNone);
  EXPECT_EQ(Serve(Log(18, {.start = 2000})), kNone);
}

TEST_F(ASearch, FindsRecordsUnderThePlainTextOfTheirIndexesOnly) {
  StoredLog log{.lastIndex = 9, .records = Stamped({9})};
  for (const char* key : {"007", "08", "8abc", "+8", " 8", "8 "}) log.records[key] = Record("u", "T", kBase);
  Start(log);
  EXPECT_EQ(Serve(Log(17, {})), Found(9, Stored({9})));
  EXPECT_EQ(Serve(Log(18, {})), Found(9, Stored({9})));
  EXPECT_EQ(Serve(Count(0, INT_MAX)), Words({1}));
}

TEST_F(ASearch, DoesNotFindARecordUnderMinusZero) {
  State& state = Start({.lastIndex = 1, .records = Stamped({1})});
  SetInMemory(state, "-0", Record("u", "T", kBase));
  EXPECT_EQ(Serve(Count(0, INT_MAX)), Words({1}));
}

TEST_F(ASearch, LeavesTheLogAsItIs) {
  State& state = Start({.maxLoggingPeriod = 3600, .lastIndex = 1});
  SetInMemory(state, "1", Record("http://1", "T", kBase + 1));
  EXPECT_EQ(Serve(Log(17, {})), Found(1, Stored({1})));
  EXPECT_EQ(Serve(Log(18, {})), Found(1, Stored({1})));
  EXPECT_EQ(Serve(Count(0, INT_MAX)), Words({1}));
  EXPECT_THAT(test::Writes(), IsEmpty());
}

TEST_F(ASearch, ThatEndsAnywhereInItsPackageIsAnsweredMinus1) {
  PrepareDevice();
  for (const std::int32_t method : {17, 18}) {
    for (size_t size = 0; size < 24; ++size) {
      SCOPED_TRACE(size);
      LogRecorder::Clear();
      EXPECT_EQ(Serve(Log(method, {}).substr(0, 16 + size)), Words({-1}));
      // No state is needed for that.
      EXPECT_THAT(LogRecorder::Lines(),
                  ElementsAre(MethodLine(method), TransportError("size wrong : " + std::to_string(size) + " != 24"),
                              ClosedLine()));
    }
  }
}

TEST_F(ASearch, IsMadeWhateverTheBytesBeforeItsTimesAre) {
  Start({.lastIndex = 1, .records = Stamped({1})});
  EXPECT_EQ(Serve(Header(17) + Words({-1, 77, 0, 0, 0, -1})), Found(1, Stored({1})));
  EXPECT_EQ(Serve(Header(20) + Words({-1, 77, 0, INT_MAX})), Words({1}));
}

// Method 19

TEST_F(ARequest, OfMethod19EmptiesTheLogAndIsAnswered0) {
  StoredLog log{.count = 7, .lastIndex = 6, .records = {{"6", Record("u", "T", Now())}}};
  Start(log);
  EXPECT_EQ(Serve(Header(19)), Words({0}));
  log.records.clear();
  EXPECT_EQ(Row("Storage"), log.Value());
}

TEST_F(ARequest, OfMethod19ThatCannotBeSavedIsAnsweredMinus1) {
  Start();
  test::RefuseWrites("Storage");
  EXPECT_EQ(Serve(Header(19)), Words({-1}));
}

// Method 20

TEST_F(ASearch, CountsTheRecordsOfARangeOfTimesBothIncluded) {
  Start({.lastIndex = 5, .records = Stamped({1, 2, 3, 4, 5})});
  EXPECT_EQ(Serve(Count(kBase + 2, kBase + 4)), Words({3}));
  EXPECT_EQ(Serve(Count(kBase + 5, kBase + 5)), Words({1}));
  EXPECT_EQ(Serve(Count(kBase + 6, INT_MAX)), Words({0}));
  EXPECT_EQ(Serve(Count(INT_MIN, INT_MAX)), Words({5}));
}

TEST_F(ASearch, CountsRecordsStampedZeroOnlyFromTimeZeroToTimeZero) {
  State& state = Start({.lastIndex = 4, .records = Stamped({1})});
  SetInMemory(state, "2", Record("u", "T", 0));
  SetInMemory(state, "3", Record("u", "T", 1));
  SetInMemory(state, "4", Record("u", "T", -1));
  EXPECT_EQ(Serve(Count(0, 0)), Words({1}));
}

TEST_F(ASearch, CountsNothingFromALaterToAnEarlierTime) {
  Start({.lastIndex = 3, .records = Stamped({1, 2, 3})});
  EXPECT_EQ(Serve(Count(kBase + 3, kBase + 1)), Words({0}));
  EXPECT_EQ(Serve(Count(kBase, 0)), Words({0}));
}

TEST_F(ASearch, CountsUpToTheLastIndex) {
  Start({.lastIndex = 5, .records = Stamped({1, 5, 9})});
  EXPECT_EQ(Serve(Count(0, INT_MAX)), Words({2}));
}

TEST_F(ASearch, CountsNothingWithoutAFirstIndex) {
  Start({.maxIndex = 5000, .lastIndex = 2000, .records = Stamped({2000})});
  EXPECT_EQ(Serve(Count(0, INT_MAX)), Words({0}));
}

TEST_F(ASearch, CountsNothingInAnEmptyLog) {
  Start();
  EXPECT_EQ(Serve(Count(0, INT_MAX)), Words({0}));
}

TEST_F(ASearch, ThatCountsAndEndsAnywhereInItsPackageIsAnsweredMinus1) {
  PrepareDevice();
  for (size_t size = 0; size < 16; ++size) {
    SCOPED_TRACE(size);
    LogRecorder::Clear();
    EXPECT_EQ(Serve(Count(0, INT_MAX).substr(0, 16 + size)), Words({-1}));
    EXPECT_THAT(
        LogRecorder::Lines(),
        ElementsAre(MethodLine(20), TransportError("size wrong : " + std::to_string(size) + " != 16"), ClosedLine()));
  }
}

}  // namespace
}  // namespace zav::ipc
