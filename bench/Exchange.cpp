#include "Exchange.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <stdexcept>
#include <string_view>

#include "Connection.h"
#include "ipc/service/Package.h"

namespace bench {
namespace {

using zav::ipc::Method;

constexpr std::size_t kChunk = 65536;
/// A request up to this size goes out with one call.
constexpr std::size_t kSmall = 4096;

template <class P>
std::string Bytes(const P& package) {
  const auto bytes = zav::ipc::Encode(package);
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

std::string HeaderOf(Method method) {
  zav::ipc::Header header;
  header.method = static_cast<std::int32_t>(method);
  return Bytes(header);
}

std::string Container(std::string_view text) {
  const auto length = static_cast<std::uint32_t>(text.size());
  std::string bytes(sizeof(length), '\0');
  std::memcpy(bytes.data(), &length, sizeof(length));
  return bytes.append(text);
}

std::string Shown(std::string_view answer) {
  std::string text = std::to_string(answer.size()) + " bytes";
  for (const char each : answer.substr(0, 32)) {
    std::array<char, 8> hex{};
    snprintf(hex.data(), hex.size(), " %02x", static_cast<unsigned>(static_cast<unsigned char>(each)));
    text += hex.data();
  }
  return text;
}

[[noreturn]] void FailWith(const std::string& answer) {
  throw std::runtime_error("a wrong answer: " + Shown(answer));
}

/// A request that is always the same, and so is its answer.
class Fixed : public Exchange {
 public:
  enum class End { kByServer, kByClient };

  Fixed(const Question& question, std::string bytes, End by)
      : socket(question.socket), request(std::move(bytes)), expected(question.expected), end(by) {}

  bool Run() override {
    const Connection connection(socket, SOCK_STREAM);
    if (!connection.Send(request)) return false;
    answer.clear();
    // One byte more, to see what must not be there.
    const std::size_t wanted = expected.size() + (end == End::kByServer ? 1 : 0);
    while (answer.size() < wanted && connection.Receive(answer, wanted - answer.size()) > 0) {
    }
    if (answer.empty()) return false;
    if (answer != expected) FailWith(answer);
    return true;
  }

 private:
  std::string socket;
  std::string request;
  std::string expected;
  End end;
  std::string answer;
};

/// A report, as the plug-in takes it.
class Report : public Exchange {
 public:
  explicit Report(const Question& question) : socket(question.socket), records(question.records) {}

  void Prepare(unsigned client, unsigned sequence) override {
    pieces = {HeaderOf(Method::kLogThreatUrl), Container(records.Url(client, sequence)),
              Container(Records::Threat(sequence))};
    if (pieces[1].size() > kSmall) return;
    pieces = {pieces[0] + pieces[1] + pieces[2]};
  }

  bool Run() override {
    const Connection connection(socket, SOCK_STREAM);
    const auto send = [&](const std::string& piece) { return connection.Send(piece); };
    if (!std::all_of(pieces.begin(), pieces.end(), send)) return false;
    std::string answer;
    while (answer.size() <= sizeof(std::int32_t) && connection.Receive(answer, 8) > 0) {
    }
    if (answer.empty()) return false;
    if (answer != std::string(sizeof(std::int32_t), '\0')) FailWith(answer);
    return true;
  }

 private:
  std::string socket;
  Records records;
  std::vector<std::string> pieces;
};

std::string RecordText(const Records& records, unsigned client, unsigned sequence) {
  return Records::Threat(sequence) + ' ' + records.Url(client, sequence);
}

/// An append to a list of Redis.
class RedisAppend : public Exchange {
 public:
  explicit RedisAppend(const Question& question) : socket(question.socket), records(question.records) {}

  void Prepare(unsigned client, unsigned sequence) override {
    const std::string text = RecordText(records, client, sequence);
    request = "*3\r\n$5\r\nRPUSH\r\n$3\r\nlog\r\n$" + std::to_string(text.size()) + "\r\n" + text + "\r\n";
  }

  bool Run() override {
    const Connection connection(socket, SOCK_STREAM);
    if (!connection.Send(request)) return false;
    std::string answer;
    while (!answer.ends_with("\r\n") && connection.Receive(answer, 64) > 0) {
    }
    if (answer.empty()) return false;
    if (answer[0] != ':' || !answer.ends_with("\r\n")) FailWith(answer);
    return true;
  }

 private:
  std::string socket;
  Records records;
  std::string request;
};

/// Something that grows, and tells when it has.
class GrowingFile {
 public:
  explicit GrowingFile(const std::string& path)
      : fd(open(path.c_str(), O_RDONLY | O_CLOEXEC)), watch(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    if (fd == -1 || watch == -1 || inotify_add_watch(watch, path.c_str(), IN_MODIFY) == -1) {
      throw std::runtime_error(path + " cannot be watched");
    }
    lseek(fd, 0, SEEK_END);
  }
  ~GrowingFile() {
    close(fd);
    close(watch);
  }
  GrowingFile(const GrowingFile&) = delete;
  GrowingFile& operator=(const GrowingFile&) = delete;

  /// Waits until the text stands behind where this looked before.
  void Await(const std::string& text) {
    while (!Read(text)) {
      pollfd event{watch, POLLIN, 0};
      if (poll(&event, 1, kPatienceMs) != 1) throw std::runtime_error("a record does not come to the file");
      std::array<char, kChunk> events;
      while (read(watch, events.data(), events.size()) > 0) {
      }
    }
    seen.clear();
  }

 private:
  static constexpr int kPatienceMs = 60000;

  bool Read(const std::string& text) {
    std::array<char, kChunk> chunk;
    for (ssize_t count = 0; (count = read(fd, chunk.data(), chunk.size())) > 0;) {
      seen.append(chunk.data(), static_cast<std::size_t>(count));
    }
    return seen.find(text) != std::string::npos;
  }

  int fd;
  int watch;
  std::string seen;
};

/// A message to rsyslog, which does not answer: done when it can be read in the file.
class Rsyslog : public Exchange {
 public:
  explicit Rsyslog(const Question& question)
      : socket(question.socket), records(question.records), file(question.file) {}

  void Prepare(unsigned client, unsigned sequence) override { text = RecordText(records, client, sequence); }

  bool Run() override {
    const Connection connection(socket, SOCK_DGRAM);
    if (!connection.Send("<13>bench: " + text)) return false;
    file.Await(text);
    return true;
  }

 private:
  std::string socket;
  Records records;
  GrowingFile file;
  std::string text;
};

/// A message to journald, which does not answer; but it can be asked to put all on the disk, and says when it has.
class Journald : public Exchange {
 public:
  explicit Journald(const Question& question)
      : socket(question.socket), control(question.control), records(question.records) {}

  void Prepare(unsigned client, unsigned sequence) override {
    text = "MESSAGE=" + RecordText(records, client, sequence) + "\nPRIORITY=5\nSYSLOG_IDENTIFIER=bench\n";
  }

  bool Run() override {
    const Connection connection(socket, SOCK_DGRAM);
    if (!connection.Send(text)) return false;
    const Connection asking(control, SOCK_STREAM);
    constexpr std::string_view kAsked = R"({"method":"io.systemd.Journal.Synchronize"})";
    if (!asking.Send(std::string(kAsked) + '\0')) return false;
    std::string answer;
    while (!answer.ends_with('\0') && asking.Receive(answer, 256) > 0) {
    }
    if (answer.empty()) return false;
    if (answer.find("error") != std::string::npos) throw std::runtime_error("journald answers " + answer);
    return true;
  }

 private:
  std::string socket;
  std::string control;
  Records records;
  std::string text;
};

using Maker = std::function<std::unique_ptr<Exchange>(const Question&)>;

Maker FixedMaker(const std::function<std::string(const Question&)>& request, Fixed::End end = Fixed::End::kByServer) {
  return [=](const Question& question) { return std::make_unique<Fixed>(question, request(question), end); };
}

template <class Kind>
std::unique_ptr<Exchange> Make(const Question& question) {
  return std::make_unique<Kind>(question);
}

const std::map<std::string, Maker>& Makers() {
  static const std::map<std::string, Maker> makers{
      {"state", FixedMaker([](const Question&) { return StateRequest(); })},
      {"status", FixedMaker([](const Question&) { return StatusRequest(); })},
      {"log", FixedMaker([](const Question& asked) { return LogRequest(false, asked.most, asked.start); })},
      {"log-reverse", FixedMaker([](const Question& asked) { return LogRequest(true, asked.most, asked.start); })},
      {"count", FixedMaker([](const Question&) { return CountRequest(); })},
      {"report", Make<Report>},
      {"clamd-ping", FixedMaker([](const Question&) { return std::string("zPING\0", 6); })},
      {"redis-append", Make<RedisAppend>},
      {"redis-range",
       FixedMaker([](const Question&) { return std::string("LRANGE log -10 -1\r\n"); }, Fixed::End::kByClient)},
      {"rsyslog", Make<Rsyslog>},
      {"journald", Make<Journald>},
  };
  return makers;
}

}  // namespace

std::unique_ptr<Exchange> MakeExchange(const Question& question) {
  const auto maker = Makers().find(question.kind);
  if (maker == Makers().end()) throw std::runtime_error("there is no kind " + question.kind);
  return maker->second(question);
}

std::vector<std::string> ExchangeKinds() {
  std::vector<std::string> kinds;
  for (const auto& [kind, maker] : Makers()) kinds.push_back(kind);
  return kinds;
}

std::string Ask(const std::string& socket, const std::string& request) {
  const Connection connection(socket, SOCK_STREAM);
  std::string answer;
  if (!connection.Send(request)) return answer;
  while (connection.Receive(answer, kChunk) > 0) {
  }
  return answer;
}

std::string StateRequest() {
  return HeaderOf(Method::kGetPyxState);
}

std::string StatusRequest() {
  return HeaderOf(Method::kGetLogStatus);
}

std::string LogRequest(bool newestFirst, int most, int start) {
  zav::ipc::LogPackage package;
  package.maxCount = most;
  package.startIndex = start;
  return HeaderOf(newestFirst ? Method::kGetLogReverse : Method::kGetLog) + Bytes(package);
}

std::string CountRequest() {
  zav::ipc::FramePackage package;
  package.to = INT_MAX;
  return HeaderOf(Method::kCountRecords) + Bytes(package);
}

}  // namespace bench
