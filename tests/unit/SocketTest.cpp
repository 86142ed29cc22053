#include "ipc/socket/Socket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <numeric>
#include <optional>
#include <thread>
#include <type_traits>
#include <vector>

#include "support/LogRecorder.h"
#include "support/MallocWatch.h"
#include "support/SystemCalls.h"
#include "support/ThisProcess.h"
#include "support/VirtualSlots.h"

namespace zav::test {
namespace {

using ipc::Socket;
using testing::ElementsAre;
using testing::IsEmpty;

const std::string kType = "N3zav3ipc6SocketE";
constexpr std::uint32_t kLimit = 16'777'216;
// No test has that many descriptors open.
constexpr int kClosedDescriptor = 901;

testing::Matcher<LogEntry> Line(int priority, const std::string& function, const std::string& message,
                                const std::string& unit = "Socket.cpp") {
  return PluginLine(priority, unit, function, message);
}

std::string Text(int error) {
  return std::strerror(error);
}

std::string TypeAnd(int descriptor) {
  return kType + " " + std::to_string(descriptor);
}

/// A socket and the other end of its connection.
class AConnectedSocket : public testing::Test {
 protected:
  AConnectedSocket() {
    int ends[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    socket = std::make_unique<Socket>(ends[0]);
    peer = std::make_unique<Socket>(ends[1]);
    prefix = TypeAnd(ends[0]);
  }

  /// The descriptor is lost behind the socket's back.
  void LoseDescriptor() { close(socket->descriptor()); }
  void ClosePeer() {
    peer.reset();
    LogRecorder::Clear();
  }
  void MakeNonblocking() { fcntl(socket->descriptor(), F_SETFL, O_NONBLOCK); }
  void PeerSends(const std::string& bytes) {
    ASSERT_EQ(send(peer->descriptor(), bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
  }
  std::string PeerReceives(size_t size) {
    std::string bytes(size, '\0');
    EXPECT_EQ(recv(peer->descriptor(), bytes.data(), size, MSG_WAITALL), static_cast<ssize_t>(size));
    return bytes;
  }

  std::unique_ptr<Socket> socket;
  std::unique_ptr<Socket> peer;
  /// What the lines of `socket` begin with.
  std::string prefix;
};

/// Only its number can make it bad then.
bool OpenDescriptor0() {
  return fcntl(0, F_GETFD) != -1 || open("/dev/null", O_RDONLY) == 0;
}

// good

TEST(ASocket, IsNotGoodWithDescriptor0NorWithMinus1) {
  ASSERT_TRUE(OpenDescriptor0());
  const Socket zero(0);
  const Socket none;
  errno = ENOENT;
  EXPECT_FALSE(zero.good());
  errno = ENOENT;
  EXPECT_FALSE(none.good());
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(Line(kError, "good", "socketFD : 0 " + Text(ENOENT)),
                                                Line(kError, "good", "socketFD : -1 " + Text(ENOENT))));
}

TEST(ASocket, IsGoodWithDescriptor1) {
  const OutputDescriptor output;
  EXPECT_TRUE(Socket(1).good());
}

TEST(ASocket, IsNotGoodWithAClosedDescriptor) {
  const Socket socket(kClosedDescriptor);
  EXPECT_FALSE(socket.good());
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(Line(kError, "good", "socketFD : 901 " + Text(EBADF))));
}

TEST_F(AConnectedSocket, IsGoodSilently) {
  EXPECT_TRUE(socket->good());
  EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
}

// analyseResult

TEST_F(AConnectedSocket, GivesAFailedResultBackUnchanged) {
  for (const int result : {-1, -2, -77}) {
    LogRecorder::Clear();
    errno = EPIPE;
    EXPECT_EQ(socket->analyseResult(result, 4), result);
    EXPECT_THAT(LogRecorder::Lines(), ElementsAre(Line(kError, "analyseResult", prefix + " " + Text(EPIPE))));
  }
}

TEST_F(AConnectedSocket, TellsThatTheSizeIsWrong) {
  for (const auto& [result, expected] : {std::pair(3, 4U), std::pair(5, 4U), std::pair(0, 1U), std::pair(4, 0U)}) {
    LogRecorder::Clear();
    EXPECT_EQ(socket->analyseResult(result, expected), -1);
    EXPECT_THAT(LogRecorder::Lines(), ElementsAre(Line(kError, "analyseResult",
                                                       prefix + " size wrong : " + std::to_string(result) +
                                                           " != " + std::to_string(expected))));
  }
}

TEST_F(AConnectedSocket, TakesTheExpectedSizeSilently) {
  EXPECT_EQ(socket->analyseResult(4, 4), 0);
  EXPECT_EQ(socket->analyseResult(0, 0), 0);
  EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
}

// getChunkSize

TEST_F(AConnectedSocket, HasChunksOfItsBufferAtMostOfTheLimit) {
  for (const int option : {SO_SNDBUF, SO_RCVBUF}) {
    int size = 0;
    socklen_t length = sizeof(size);
    ASSERT_EQ(getsockopt(socket->descriptor(), SOL_SOCKET, option, &size, &length), 0);
    EXPECT_EQ(socket->getChunkSize(option, kLimit), static_cast<unsigned>(size));
    EXPECT_EQ(socket->getChunkSize(option, 5), 5U);
  }
  EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
}

TEST(ASocket, HasNoChunkWithADescriptorThatIsNoSocket) {
  const Socket file(open("/dev/null", O_RDWR | O_CLOEXEC));
  EXPECT_EQ(file.getChunkSize(SO_SNDBUF, 5), 0U);
  EXPECT_THAT(
      LogRecorder::Lines(),
      ElementsAre(Line(kError, "getChunkSize", TypeAnd(file.descriptor()) + " getsockopt fails:" + Text(ENOTSOCK))));
}

TEST(ASocket, HasNoChunkWithAClosedDescriptor) {
  const Socket socket(kClosedDescriptor);
  EXPECT_EQ(socket.getChunkSize(SO_RCVBUF, 5), 0U);
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(Line(kError, "good", "socketFD : 901 " + Text(EBADF)),
                          Line(kError, "getChunkSize", kType + " 901 getsockopt fails:" + Text(EBADF))));
}

// sendValue, receiveValue

TEST_F(AConnectedSocket, SendsAValueWithOneCall) {
  std::vector<size_t> calls;
  const CallHook hook(Call::kSend, [&](const CallArguments& call) -> std::optional<long> {
    EXPECT_EQ(call.flags, MSG_NOSIGNAL);
    calls.push_back(call.size);
    return std::nullopt;
  });
  EXPECT_EQ(socket->sendValue(5, "hello"), 0);
  EXPECT_EQ(PeerReceives(5), "hello");
  EXPECT_THAT(calls, ElementsAre(5U));
  EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
}

TEST_F(AConnectedSocket, ReceivesAValueWithOneCallThatWaitsForNoMoreThanIsThere) {
  std::vector<size_t> calls;
  const CallHook hook(Call::kRecv, [&](const CallArguments& call) -> std::optional<long> {
    EXPECT_EQ(call.flags, MSG_NOSIGNAL);
    calls.push_back(call.size);
    return std::nullopt;
  });
  PeerSends("abcd");
  char bytes[8] = {};
  unsigned size = 4;
  EXPECT_EQ(socket->receiveValue(size, bytes), 0);
  EXPECT_STREQ(bytes, "abcd");
  EXPECT_THAT(LogRecorder::Lines(), IsEmpty());

  PeerSends("ef");
  EXPECT_EQ(socket->receiveValue(size, bytes), -1);
  EXPECT_THAT(calls, ElementsAre(4U, 4U));
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(Line(kError, "analyseResult", prefix + " size wrong : 2 != 4")));
}

TEST_F(AConnectedSocket, AttemptsNothingWithANullBuffer) {
  PeerSends("abcd");
  unsigned size = 4;
  errno = EINVAL;
  EXPECT_EQ(socket->sendValue(4, static_cast<const void*>(nullptr)), -2);
  errno = EINVAL;
  EXPECT_EQ(socket->receiveValue(size, nullptr), -2);
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(Line(kError, "analyseResult", prefix + " " + Text(EINVAL)),
                                                Line(kError, "analyseResult", prefix + " " + Text(EINVAL))));
}

TEST(ASocket, AttemptsNothingWithADeadDescriptor) {
  Socket socket(kClosedDescriptor);
  char byte = 0;
  unsigned size = 1;
  const auto lines = ElementsAre(Line(kError, "good", "socketFD : 901 " + Text(EBADF)),
                                 Line(kError, "analyseResult", kType + " 901 " + Text(EBADF)));
  EXPECT_EQ(socket.sendValue(1, &byte), -2);
  EXPECT_THAT(LogRecorder::Lines(), lines);
  LogRecorder::Clear();
  EXPECT_EQ(socket.receiveValue(size, &byte), -2);
  EXPECT_THAT(LogRecorder::Lines(), lines);
}

TEST_F(AConnectedSocket, GivesWhatTheSystemCallGaveWhenTheTransferFails) {
  MakeNonblocking();
  char byte = 0;
  unsigned size = 1;
  EXPECT_EQ(socket->receiveValue(size, &byte), -1);
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(Line(kError, "analyseResult", prefix + " " + Text(EAGAIN))));
  ClosePeer();
  EXPECT_EQ(socket->sendValue(1, &byte), -1);
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(Line(kError, "analyseResult", prefix + " " + Text(EPIPE))));
}

TEST_F(AConnectedSocket, SendsAnIntAsFourBytes) {
  const int value = -123456789;
  EXPECT_EQ(socket->sendValue(&value), 0);
  int received = 0;
  std::memcpy(&received, PeerReceives(4).data(), 4);
  EXPECT_EQ(received, value);
}

TEST(ASocket, WithoutADescriptorSendsAndReceivesNothingSilently) {
  Socket socket;
  const int value = 1;
  std::string text = "left from before";
  EXPECT_EQ(socket.sendValue(&value), -2);
  EXPECT_EQ(socket.sendContainer(&text), -2);
  EXPECT_EQ(socket.receiveContainer(&text), -2);
  EXPECT_EQ(text, "");
  EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
}

// sendData

TEST_F(AConnectedSocket, SendsNoBytesWithAWarningAndReceivesNoBytesSilently) {
  EXPECT_EQ(socket->sendData(0, ""), 0);
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(Line(kWarning, "sendData", kType + " : nothing to send", "SocketSend.cpp")));
  LogRecorder::Clear();
  char byte = 0;
  EXPECT_EQ(socket->receiveData(0, &byte), 0);
  EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
}

TEST(ASocket, NeedsNoDescriptorToSendNoBytes) {
  Socket socket(kClosedDescriptor);
  EXPECT_EQ(socket.sendData(0, ""), 0);
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(Line(kWarning, "sendData", kType + " : nothing to send", "SocketSend.cpp")));
}

TEST_F(AConnectedSocket, SendsOneByte) {
  ASSERT_EQ(socket->sendData(1, "x"), 0);
  EXPECT_EQ(PeerReceives(1), "x");
}

/// Text without a period that a chunk could hide.
std::string Long(size_t size) {
  std::string text(size, '\0');
  unsigned state = 1;
  std::generate(text.begin(), text.end(), [&] {
    state = state * 1664525U + 1013904223U;
    return static_cast<char>(state >> 24);
  });
  return text;
}

TEST_F(AConnectedSocket, MovesALongBlockInPiecesOfTheKernelsBufferAndNeverMoreThanIsLeft) {
  const std::string text = Long(3'000'000);
  const auto size = static_cast<unsigned>(text.size());
  const unsigned sendBuffer = socket->getChunkSize(SO_SNDBUF, size);
  const unsigned receiveBuffer = peer->getChunkSize(SO_RCVBUF, size);
  ASSERT_LT(sendBuffer, size);
  ASSERT_LT(receiveBuffer, size);

  const auto observe = [&](unsigned buffer, std::vector<size_t>& calls) {
    return [buffer, &calls](const CallArguments& call) -> std::optional<long> {
      EXPECT_LE(call.size, buffer);
      EXPECT_EQ(call.flags, MSG_NOSIGNAL);
      calls.push_back(call.size);
      return std::nullopt;
    };
  };
  std::vector<size_t> sent;
  std::vector<size_t> asked;
  const CallHook sending(Call::kSend, observe(sendBuffer, sent));
  const CallHook receiving(Call::kRecv, observe(receiveBuffer, asked));

  std::string received(text.size(), '\0');
  int result = -1;
  std::thread reader([&] { result = peer->receiveData(size, received.data()); });
  EXPECT_EQ(socket->sendData(size, text.data()), 0);
  reader.join();
  EXPECT_EQ(result, 0);
  EXPECT_TRUE(received == text);
  EXPECT_EQ(std::accumulate(sent.begin(), sent.end(), size_t{0}), text.size());
  EXPECT_LE(asked.back(), text.size());
  EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
}

TEST_F(AConnectedSocket, SendsNothingOfABlockWithoutAChunk) {
  LoseDescriptor();
  EXPECT_EQ(socket->sendData(5, "hello"), -1);
  EXPECT_THAT(
      LogRecorder::Lines(),
      ElementsAre(Line(kError, "good", "socketFD : " + std::to_string(socket->descriptor()) + " " + Text(EBADF)),
                  Line(kError, "getChunkSize", prefix + " getsockopt fails:" + Text(EBADF)),
                  Line(kError, "analyseResult", prefix + " size wrong : 0 != 5")));
}

TEST_F(AConnectedSocket, TellsWhatItSentWhenThePeerIsGone) {
  ClosePeer();
  EXPECT_EQ(socket->sendData(5, "hello"), -1);
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(Line(kError, "sendData", prefix + " send data fail : " + Text(EPIPE), "SocketSend.cpp"),
                          Line(kError, "analyseResult", prefix + " size wrong : 0 != 5")));
}

/// Makes a transfer report a number of bytes.
CallHook::Action Give(long result) {
  return [result](const CallArguments&) { return std::optional(result); };
}

TEST_F(AConnectedSocket, TellsThatAWrongSizeWasSent) {
  for (const long moved : {0L, 9L}) {
    LogRecorder::Clear();
    const CallHook hook(Call::kSend, Give(moved));
    EXPECT_EQ(socket->sendData(5, "hello"), -1);
    EXPECT_THAT(
        LogRecorder::Lines(),
        ElementsAre(Line(kError, "sendData", prefix + " wrong size sent", "SocketSend.cpp"),
                    Line(kError, "analyseResult", prefix + " size wrong : " + std::to_string(moved) + " != 5")));
  }
}

TEST_F(AConnectedSocket, EndsABlockWhenItsDescriptorIsLostOnTheWay) {
  const auto loseAfterTwo = [&](const CallArguments&) -> std::optional<long> {
    LoseDescriptor();
    return 2;
  };
  const auto lines =
      ElementsAre(Line(kError, "good", "socketFD : " + std::to_string(socket->descriptor()) + " " + Text(EBADF)),
                  Line(kError, "analyseResult", prefix + " size wrong : 2 != 5"));
  const CallHook hook(Call::kSend, loseAfterTwo);
  EXPECT_EQ(socket->sendData(5, "hello"), -1);
  EXPECT_THAT(LogRecorder::Lines(), lines);
}

// receiveData

TEST_F(AConnectedSocket, PutsABlockTogetherFromPieces) {
  char bytes[8] = {};
  // The second piece comes when the first was taken.
  bool first = true;
  const CallHook hook(Call::kRecv, [&](const CallArguments& call) -> std::optional<long> {
    EXPECT_EQ(call.size, first ? 6U : 4U);
    PeerSends(first ? "ab" : "cdef");
    first = false;
    return std::nullopt;
  });
  EXPECT_EQ(socket->receiveData(6, bytes), 0);
  EXPECT_STREQ(bytes, "abcdef");
  EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
}

TEST_F(AConnectedSocket, EndsABlockThatComesWhenItsDescriptorIsLostOnTheWay) {
  const CallHook hook(Call::kRecv, [&](const CallArguments&) -> std::optional<long> {
    LoseDescriptor();
    return 2;
  });
  const auto lines =
      ElementsAre(Line(kError, "good", "socketFD : " + std::to_string(socket->descriptor()) + " " + Text(EBADF)),
                  Line(kError, "analyseResult", prefix + " size wrong : 2 != 5"));
  char bytes[8] = {};
  EXPECT_EQ(socket->receiveData(5, bytes), -1);
  EXPECT_THAT(LogRecorder::Lines(), lines);
}

TEST_F(AConnectedSocket, TellsThatThePeerClosedInTheMiddleOfABlock) {
  PeerSends("ab");
  ClosePeer();
  char bytes[8] = {};
  EXPECT_EQ(socket->receiveData(5, bytes), -1);
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(Line(kError, "receiveData", prefix + " wrong size received", "SocketReceive.cpp"),
                          Line(kError, "analyseResult", prefix + " size wrong : 2 != 5")));
}

TEST_F(AConnectedSocket, TellsThatMoreWasReceivedThanAskedFor) {
  const CallHook hook(Call::kRecv, Give(9));
  char bytes[8] = {};
  EXPECT_EQ(socket->receiveData(5, bytes), -1);
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(Line(kError, "receiveData", prefix + " wrong size received", "SocketReceive.cpp"),
                          Line(kError, "analyseResult", prefix + " size wrong : 9 != 5")));
}

TEST_F(AConnectedSocket, TellsThatABlockCannotBeReceived) {
  MakeNonblocking();
  PeerSends("ab");
  char bytes[8] = {};
  EXPECT_EQ(socket->receiveData(5, bytes), -1);
  EXPECT_THAT(
      LogRecorder::Lines(),
      ElementsAre(Line(kError, "receiveData", prefix + " Can't recv all message:" + Text(EAGAIN), "SocketReceive.cpp"),
                  Line(kError, "analyseResult", prefix + " size wrong : 2 != 5")));
}

TEST_F(AConnectedSocket, ReceivesNothingOfABlockWithoutAChunk) {
  LoseDescriptor();
  char bytes[8] = {};
  EXPECT_EQ(socket->receiveData(5, bytes), -1);
  EXPECT_THAT(
      LogRecorder::Lines(),
      ElementsAre(Line(kError, "good", "socketFD : " + std::to_string(socket->descriptor()) + " " + Text(EBADF)),
                  Line(kError, "getChunkSize", prefix + " getsockopt fails:" + Text(EBADF)),
                  Line(kError, "analyseResult", prefix + " size wrong : 0 != 5")));
}

// Strings

TEST_F(AConnectedSocket, SendsAStringAsItsLengthInFourBytesAndItsBytes) {
  std::string text("a\0b", 3);
  EXPECT_EQ(socket->sendContainer(&text), 0);
  const std::uint32_t length = 3;
  EXPECT_EQ(PeerReceives(7), std::string(reinterpret_cast<const char*>(&length), 4) + text);
  EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
}

TEST_F(AConnectedSocket, ReceivesTheStringThatTheOtherEndSent) {
  std::string sent("a\0b", 3);
  std::string received = "left from before";
  EXPECT_EQ(peer->sendContainer(&sent), 0);
  EXPECT_EQ(socket->receiveContainer(&received), 0);
  EXPECT_EQ(received, sent);
}

TEST_F(AConnectedSocket, SendsAnEmptyStringAsItsLengthAlone) {
  std::string text;
  EXPECT_EQ(socket->sendContainer(&text), 0);
  EXPECT_EQ(PeerReceives(4), std::string(4, '\0'));
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(Line(kWarning, "sendData", kType + " : nothing to send", "SocketSend.cpp")));
}

TEST_F(AConnectedSocket, MovesAStringOfTheLimitAndRefusesOneByteMoreAtEitherEnd) {
  std::string text = Long(kLimit);
  std::string received;
  int result = -1;
  std::thread reader([&] { result = peer->receiveContainer(&received); });
  EXPECT_EQ(socket->sendContainer(&text), 0);
  reader.join();
  EXPECT_EQ(result, 0);
  EXPECT_TRUE(received == text);
  EXPECT_THAT(LogRecorder::Lines(), IsEmpty());

  text += "x";
  EXPECT_EQ(socket->sendContainer(&text), -2);
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(Line(kError, "sendContainer",
                                                     kType + " ! 16777217 is over limit 16777216", "SocketSend.cpp")));
  LogRecorder::Clear();

  const int tooLong = kLimit + 1;
  ASSERT_EQ(peer->sendValue(&tooLong), 0);
  received = "left from before";
  EXPECT_EQ(socket->receiveContainer(&received), 0);
  EXPECT_EQ(received, "");
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(Line(kError, "receiveContainer", "16777217 is over limit 16777216", "SocketReceive.cpp")));
}

TEST(ASocket, SaysNothingOfAStringWithoutADescriptorEvenIfItIsTooLong) {
  Socket socket;
  std::string text = Long(kLimit + 1);
  EXPECT_EQ(socket.sendContainer(&text), -2);
  EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
}

TEST_F(AConnectedSocket, SendsNoBytesOfAStringWhoseLengthCouldNotBeSent) {
  ClosePeer();
  std::string text = "hello";
  EXPECT_EQ(socket->sendContainer(&text), -1);
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(Line(kError, "analyseResult", prefix + " " + Text(EPIPE))));
}

TEST_F(AConnectedSocket, TellsThatThePeerClosedAfterTheLengthOfAString) {
  const int length = 5;
  ASSERT_EQ(peer->sendValue(&length), 0);
  ClosePeer();
  std::string text;
  EXPECT_EQ(socket->receiveContainer(&text), -1);
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(Line(kError, "receiveData", prefix + " wrong size received", "SocketReceive.cpp"),
                          Line(kError, "analyseResult", prefix + " size wrong : 0 != 5")));
}

TEST_F(AConnectedSocket, GivesNoPartOfAString) {
  const int length = 5;
  ASSERT_EQ(peer->sendValue(&length), 0);
  PeerSends("half");
  ClosePeer();
  std::string text = "left from before";
  EXPECT_EQ(socket->receiveContainer(&text), -1);
  EXPECT_EQ(text, "");
}

TEST_F(AConnectedSocket, ShowsALengthThatDidNotComeWholeAs0) {
  for (const size_t bytes : {2U, 0U}) {
    LogRecorder::Clear();
    PeerSends(std::string(bytes, '\x7f'));
    if (bytes == 0) ClosePeer();
    std::string text = "left from before";
    EXPECT_EQ(socket->receiveContainer(&text), -1);
    EXPECT_EQ(text, "");
    EXPECT_THAT(LogRecorder::Lines(),
                ElementsAre(Line(kError, "analyseResult", prefix + " size wrong : " + std::to_string(bytes) + " != 4"),
                            Line(kError, "receiveContainer", "0 is over limit 16777216", "SocketReceive.cpp")));
  }
}

TEST_F(AConnectedSocket, GivesMinus2ForAStringThatFindsNoMemory) {
  const int length = 5;
  ASSERT_EQ(peer->sendValue(&length), 0);
  LogRecorder::Clear();
  std::string text = "left from before";
  MallocWatch::FailNext();
  EXPECT_EQ(socket->receiveContainer(&text), -2);
  EXPECT_EQ(text, "");
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(Line(kError, "receiveContainer", "no memory for 5 bytes", "SocketReceive.cpp")));
}

/// Kilobytes of the process's own memory.
long ResidentMemory() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("RssAnon:")) return std::stol(line.substr(line.find_first_of("0123456789")));
  }
  return -1;
}

TEST_F(AConnectedSocket, TakesNoMemoryForBytesThatDoNotCome) {
  const int length = kLimit;
  ASSERT_EQ(peer->sendValue(&length), 0);
  const long before = ResidentMemory();
  long during = 0;
  const CallHook hook(Call::kRecv, [&](const CallArguments& call) -> std::optional<long> {
    if (call.size == sizeof(length)) return std::nullopt;
    during = ResidentMemory();
    errno = ECONNRESET;
    return -1;
  });
  std::string text;
  EXPECT_EQ(socket->receiveContainer(&text), -1);
  EXPECT_GT(before, 0);
  // A sanitizer's allocator touches memory of its own for every byte it gives, or the bytes themselves.
  const long untouched = ResidentMemory();
  const std::unique_ptr<void, decltype(&std::free)> reserved(std::malloc(kLimit), &std::free);
  ASSERT_NE(reserved, nullptr);
  EXPECT_LT(during - before, ResidentMemory() - untouched + 1024);
}

TEST(ASocket, GivesMinus2ForAStringFromADeadDescriptor) {
  Socket socket(kClosedDescriptor);
  std::string text = "left from before";
  EXPECT_EQ(socket.receiveContainer(&text), -2);
  EXPECT_EQ(text, "");
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(Line(kError, "good", "socketFD : 901 " + Text(EBADF)),
                          Line(kError, "analyseResult", kType + " 901 " + Text(EBADF)),
                          Line(kError, "receiveContainer", "0 is over limit 16777216", "SocketReceive.cpp")));
}

// create

int SocketOption(int descriptor, int option) {
  int value = -1;
  socklen_t length = sizeof(value);
  getsockopt(descriptor, SOL_SOCKET, option, &value, &length);
  return value;
}

TEST(ASocket, IsMadeAsAUnixStreamSocketThatIsClosedOnExec) {
  Socket socket;
  socket.create();
  ASSERT_GT(socket.descriptor(), 0);
  EXPECT_EQ(SocketOption(socket.descriptor(), SO_DOMAIN), AF_UNIX);
  EXPECT_EQ(SocketOption(socket.descriptor(), SO_TYPE), SOCK_STREAM);
  EXPECT_TRUE(IsCloseOnExec(socket.descriptor()));
  EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
}

TEST(ASocket, CreatedTwiceKeepsItsFirstDescriptor) {
  Socket socket;
  socket.create();
  const int first = socket.descriptor();
  const std::set<int> open = Descriptors();
  socket.create();
  EXPECT_EQ(socket.descriptor(), first);
  EXPECT_EQ(Descriptors(), open);
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(Line(kWarning, "create", kType + ".existed ? socket : " + std::to_string(first))));
}

TEST(ASocket, TellsThatNoDescriptorIsToBeHad) {
  Socket socket;
  {
    const CallHook hook(Call::kSocket, Fail(EMFILE));
    socket.create();
  }
  EXPECT_EQ(socket.descriptor(), -1);
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(Line(kError, "create", kType + " -1 socket descriptor error:" + Text(EMFILE))));
}

TEST(ASocket, NeverHasDescriptor0AndDoesNotLeakIt) {
  close(0);
  Socket socket;
  socket.create();
  EXPECT_GT(socket.descriptor(), 0);
  EXPECT_TRUE(IsCloseOnExec(socket.descriptor()));
  EXPECT_TRUE(socket.good());
  EXPECT_EQ(fcntl(0, F_GETFD), -1);
  EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
}

TEST(ASocket, DoesNotKeepDescriptor0WhenThereIsNoOtherOne) {
  close(0);
  Socket socket;
  {
    const CallHook hook(Call::kFcntl, [](const CallArguments& call) -> std::optional<long> {
      if (call.flags != F_DUPFD && call.flags != F_DUPFD_CLOEXEC) return std::nullopt;
      errno = EMFILE;
      return -1;
    });
    socket.create();
  }
  EXPECT_EQ(socket.descriptor(), -1);
  EXPECT_EQ(fcntl(0, F_GETFD), -1);
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(Line(kError, "create", kType + " -1 socket descriptor error:" + Text(EMFILE))));
}

// shutdown

TEST(ASocket, WithoutADescriptorIsShutWithADebugLine) {
  Socket socket;
  socket.shutdown();
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(Line(kDebug, "shutdown", kType + " -1 socket descriptor is wrong")));
}

TEST_F(AConnectedSocket, IsShutInBothDirectionsSilentlyAndStaysOpen) {
  socket->shutdown();
  EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
  char byte = 0;
  EXPECT_EQ(recv(peer->descriptor(), &byte, 1, 0), 0);
  EXPECT_EQ(recv(socket->descriptor(), &byte, 1, 0), 0);
  EXPECT_EQ(send(peer->descriptor(), &byte, 1, MSG_NOSIGNAL), -1);
  EXPECT_TRUE(socket->good());
}

TEST(ASocket, TellsThatItCouldNotBeShut) {
  Socket file(open("/dev/null", O_RDWR | O_CLOEXEC));
  file.shutdown();
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(Line(kInfo, "shutdown", kType + " Shutdown socket FAIL:" + Text(ENOTSOCK))));
  LogRecorder::Clear();
  Socket closed(kClosedDescriptor);
  closed.shutdown();
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(Line(kError, "good", "socketFD : 901 " + Text(EBADF)),
                          Line(kInfo, "shutdown", kType + " Shutdown socket FAIL:" + Text(EBADF))));
}

// The end

TEST_F(AConnectedSocket, ClosesItsDescriptorAtItsEnd) {
  const int descriptor = socket->descriptor();
  socket.reset();
  EXPECT_EQ(fcntl(descriptor, F_GETFD), -1);
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(Line(kDebug, "~Socket", kType + " : " + std::to_string(descriptor))));
}

TEST(ASocket, TellsAtItsEndThatItHadNoDescriptor) {
  { const Socket socket; }
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(Line(kError, "~Socket", kType + " socket descriptor is wrong")));
}

TEST(ASocket, TellsAtItsEndThatItsDescriptorWasBad) {
  { const Socket socket(kClosedDescriptor); }
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(Line(kError, "good", "socketFD : 901 " + Text(EBADF)),
                                                Line(kError, "~Socket", kType + " ! 901 ! " + Text(EBADF))));
}

TEST(ASocket, LeavesDescriptor0OpenAtItsEnd) {
  ASSERT_TRUE(OpenDescriptor0());
  errno = ENOENT;
  { const Socket socket(0); }
  EXPECT_NE(fcntl(0, F_GETFD), -1);
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(Line(kError, "good", "socketFD : 0 " + Text(ENOENT)),
                                                Line(kError, "~Socket", kType + " ! 0 ! " + Text(ENOENT))));
}

// The type

class Derived : public Socket {
  using Socket::Socket;
};

TEST(ASocket, IsNamedByItsOwnTypeInItsLinesButByTheBaseAtItsEnd) {
  {
    Derived derived;
    derived.shutdown();
  }
  const std::string name = *typeid(Derived).name() == '*' ? typeid(Derived).name() + 1 : typeid(Derived).name();
  ASSERT_NE(name, kType);
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(Line(kDebug, "shutdown", name + " -1 socket descriptor is wrong"),
                                                Line(kError, "~Socket", kType + " socket descriptor is wrong")));
}

TEST(ASocket, CannotBeCopied) {
  EXPECT_FALSE(std::is_copy_constructible_v<Socket>);
  EXPECT_FALSE(std::is_copy_assignable_v<Socket>);
  EXPECT_FALSE(std::is_move_constructible_v<Socket>);
}

TEST_F(AConnectedSocket, HasItsVirtualOperationsInTheirOrder) {
  Socket* object = socket.get();
  const int result = 2;
  unsigned two = 2;
  char bytes[3] = {};
  EXPECT_EQ((Slot<int (*)(Socket*, const int&, const unsigned&)>(object, 0)(object, result, two)), 0);
  EXPECT_EQ((Slot<int (*)(Socket*, const unsigned&, const void*)>(object, 1)(object, two, "ab")), 0);
  EXPECT_EQ((Slot<int (*)(Socket*, const unsigned&, const void*)>(object, 2)(object, two, "cd")), 0);
  EXPECT_EQ(PeerReceives(4), "abcd");
  PeerSends("efgh");
  EXPECT_EQ((Slot<int (*)(Socket*, unsigned&, void*)>(object, 3)(object, two, bytes)), 0);
  EXPECT_STREQ(bytes, "ef");
  EXPECT_EQ((Slot<int (*)(Socket*, const unsigned&, const void*)>(object, 4)(object, two, bytes)), 0);
  EXPECT_STREQ(bytes, "gh");
  EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
  Slot<void (*)(Socket*)>(object, 7)(object);
  EXPECT_THAT(LogRecorder::Lines(),
              ElementsAre(Line(kWarning, "create", kType + ".existed ? socket : " + prefix.substr(kType.size() + 1))));
  Slot<void (*)(Socket*)>(object, 8)(object);
  EXPECT_EQ(recv(peer->descriptor(), bytes, 1, 0), 0);
}

}  // namespace
}  // namespace zav::test
