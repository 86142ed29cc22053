#include "support/OddClients.h"

#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <ctime>
#include <set>
#include <stdexcept>
#include <string>

#include "support/ThisProcess.h"
#include "support/WaitUntil.h"

namespace zav::test {

using ipc::Method;

std::ostream& operator<<(std::ostream& out, Stuck how) {
  const char* const names[] = {"silent", "in the middle of a string", "not reading its reply"};
  return out << names[static_cast<int>(how)];
}

void StoreHugeLog() {
  const std::string url(300'000, 'u');
  const std::string stamp = std::to_string(time(nullptr));
  std::string rows;
  for (int index = 0; index < 10; ++index) {
    rows.append(",\"").append(std::to_string(index)).append("\":{\"url\":\"").append(url);
    rows.append("\",\"threat\":\"t\",\"timestamp\":").append(stamp).append("}");
  }
  // All three policies, and the backup: a row that is missing would be looked for in the backup, put in the place of
  // all.
  SetRow("Service", R"({"restart_delay":30})");
  SetRow("State", R"({"pyx_state":"enabled","logging_state":"enabled"})");
  SetRow("Storage", R"({"config":{"max_index":2000,"max_file_size":10,"max_logging_period":3600},)"
                    R"("state":{"count":10,"last_index":9})" +
                        rows + "}");
  WriteFile(kBackup, ReadFile(kDatabase));
}

namespace {

sockaddr_un Address(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  return address;
}

}  // namespace

int ConnectFrom(const std::string& name) {
  const sockaddr_un own = Address(name);
  const sockaddr_un service = Address(kSocketFile);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (bind(fd, reinterpret_cast<const sockaddr*>(&own), sizeof(own)) != 0 ||
      connect(fd, reinterpret_cast<const sockaddr*>(&service), sizeof(service)) != 0) {
    throw std::runtime_error("cannot connect from " + name);
  }
  return fd;
}

bool WaitUntilTaken(const RawClient& client) {
  return WaitUntil([&] {
    int left = -1;
    return ioctl(client.descriptor(), SIOCOUTQ, &left) == 0 && left == 0;
  });
}

bool WaitUntilReadable(const RawClient& client) {
  return WaitUntil([&] {
    pollfd readable{client.descriptor(), POLLIN, 0};
    return poll(&readable, 1, 0) == 1;
  });
}

namespace {

/// Whether a log is on its way, not the lone -1 of an empty one.
bool HasRecords(const RawClient& client) {
  std::int32_t result = -1;
  return recv(client.descriptor(), &result, sizeof(result), MSG_PEEK | MSG_WAITALL) == sizeof(result) && result == 0;
}

bool GetStuck(RawClient& client, Stuck how, const std::set<int>& threads) {
  switch (how) {
    case Stuck::kSilent:
      // Its thread waits for it.
      return WaitUntil([&] {
        std::set<int> now = ThreadIds();
        std::erase_if(now, [&](int thread) { return threads.contains(thread); });
        return !now.empty() && std::all_of(now.begin(), now.end(), IsAsleep);
      });
    case Stuck::kInTheMiddleOfAString:
      return client.SendHeader(Method::kLogThreatUrl) && client.SendInt(1000) && client.Send("half", 4) &&
             WaitUntilTaken(client);
    case Stuck::kNotReadingItsReply:
      return client.SendHeader(Method::kGetLog) && client.SendPackage(ipc::LogPackage()) && WaitUntilReadable(client) &&
             HasRecords(client);
  }
  return false;
}

}  // namespace

std::unique_ptr<RawClient> MakeStuckClient(Stuck how) {
  const std::set<int> threads = ThreadIds();
  auto client = std::make_unique<RawClient>();
  if (!GetStuck(*client, how, threads)) throw std::runtime_error("the client is not being served");
  return client;
}

}  // namespace zav::test
