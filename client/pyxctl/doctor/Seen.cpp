#include "doctor/Seen.h"

#include <chrono>
#include <thread>

namespace zav::pyxctl::doctor {
namespace {

constexpr off_t kLargestDatabase = 512 << 20;
constexpr off_t kLargestPolicy = 16 << 20;

/// What a database begins with; it changes with every transaction.
constexpr std::size_t kHeaderSize = 100;

/// A journal without meaning begins with zeros or is empty; during a transaction, and after one that was cut short, it
/// does not.
bool IsHot(const std::string& journal) {
  const std::string beginning = ReadBeginning(journal, 1);
  return !beginning.empty() && beginning.front() != '\0';
}

/// Reads the database, as the engine would, between two writes: its header is the same before and after.
void ReadDatabase(Seen& seen) {
  const std::string path = seen.paths.Database();
  const bool wasHot = IsHot(seen.paths.Journal());
  seen.database = ReadWhole(path, kLargestDatabase);
  const std::string header = ReadBeginning(path, kHeaderSize).substr(0, kHeaderSize);
  seen.journalIsHot = IsHot(seen.paths.Journal());
  seen.isSettled = !wasHot && !seen.journalIsHot && header == seen.database.bytes.substr(0, kHeaderSize);
}

/// The service brings the backup up to date at the end of a write: what differs may only be on its way.
bool MayBecomeEqual(const Seen& seen) {
  if (!seen.isSettled) return true;
  return seen.database.IsRead() && seen.backup.IsRead() && seen.database.bytes != seen.backup.bytes;
}

void ReadBoth(Seen& seen) {
  constexpr auto kPatience = std::chrono::seconds(1);
  constexpr auto kPause = std::chrono::milliseconds(20);
  const auto end = std::chrono::steady_clock::now() + kPatience;
  for (;;) {
    ReadDatabase(seen);
    seen.backup = ReadWhole(seen.paths.Backup(), kLargestDatabase);
    if (!MayBecomeEqual(seen) || std::chrono::steady_clock::now() >= end) return;
    std::this_thread::sleep_for(kPause);
  }
}

Service Ask(const pyxclient::Options& options) {
  Service service;
  try {
    pyxclient::Client client(options);
    service.isEnabled = client.IsEnabled();
    service.isLogging = client.IsLogging();
  } catch (const pyxclient::Error& error) {
    service.failure = error.failure();
    service.reason = error.what();
  }
  return service;
}

}  // namespace

Content ReadPolicyFile(const std::string& path) {
  return ReadWhole(path, kLargestPolicy);
}

Seen LookAt(const Paths& paths, const pyxclient::Options& options) {
  Seen seen;
  seen.paths = paths;
  ReadBoth(seen);
  seen.defaultPolicy = ReadPolicyFile(paths.DefaultPolicy());
  seen.service = Ask(options);
  return seen;
}

}  // namespace zav::pyxctl::doctor
