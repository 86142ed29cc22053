#include "Checks.h"

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>

#include "support/Device.h"
#include "support/ThisProcess.h"
#include "support/WaitUntil.h"

namespace zav::test {
namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr seconds kDeadline{20};
/// A stop waits for a client at most half a second, and a second for a service that rests.
constexpr seconds kStopDeadline{10};

const std::string kRestoring = kDatabase + ".restoring";
const std::string kStale = kBackup + ".stale";

void Expect(Session& session, bool holds, const std::string& what) {
  if (!holds) session.report.Fail(what);
}

void ExpectAcknowledgedIn(Session& session, const std::string& records, const std::string& where) {
  for (const std::string& url : session.acknowledged) {
    Expect(session, records.find(url) != std::string::npos, "an acknowledged report is not in " + where + ": " + url);
  }
}

/// The log as another process would find it, if this one ended now: in the database, or in the backup where the note
/// says that it is to be put in the database's place. Looked up in copies, as looking may mend.
std::string StoredLog() {
  const std::string directory = "/tmp/look";
  const std::string copy = directory + "/.data.db";
  std::filesystem::remove_all(directory);
  std::filesystem::create_directory(directory);
  std::filesystem::copy_file(FileExists(kRestoring) && FileExists(kBackup) ? kBackup : kDatabase, copy);
  if (FileExists(kJournal)) std::filesystem::copy_file(kJournal, copy + "-journal");
  return Rows(copy)["Storage"];
}

void CheckStorage(Session& session) {
  session.report.At("look at the database");
  if (session.acknowledged.empty()) return;
  try {
    ExpectAcknowledgedIn(session, StoredLog(), "the database right after");
  } catch (const std::exception& exception) {
    session.report.Fail(std::string("no database right after the acknowledgement: ") + exception.what());
  }
}

void CheckReport(Session& session, const std::string& url) {
  session.report.At("report");
  const std::optional<int> answer = ReportUntilAnswered(url, kDeadline);
  if (!answer) return session.report.Fail("no request is answered any more");
  Expect(session, *answer == 0, "a report without any fault was answered with " + std::to_string(*answer));
  session.acknowledged.push_back(url);
}

void CheckLog(Session& session) {
  session.report.At("read the log");
  const std::optional<std::string> records = AskUntilAnswered(kDeadline);
  if (!records) return session.report.Fail("the log is not answered any more");
  ExpectAcknowledgedIn(session, *records, "the log");
}

void CheckSwitching(Session& session, size_t keptWhenOff) {
  const auto start = steady_clock::now();
  Expect(session, session.host.SetStatus(0) == 0, "switching off failed");
  Expect(session, steady_clock::now() - start < kStopDeadline, "switching off took too long");
  session.report.keptWhenOff = Descriptors().size() - session.descriptors.size();
  Expect(session, session.report.keptWhenOff <= keptWhenOff,
         "while switched off " + std::to_string(session.report.keptWhenOff) + " descriptors are kept");
  Expect(session, session.host.SetStatus(1) == 0, "switching on failed");
  CheckReport(session, "http://again");
}

void CheckUnloading(Session& session) {
  session.host.Unload();
  session.report.At("look what the unloading left");
  Expect(session, !Library::IsMapped(), "the library is not unloaded");
  Expect(session, Descriptors() == session.descriptors, "a descriptor is left after the unloading");
  Expect(session, WaitUntil([&] { return ThreadIds() == session.threads; }), "a thread is left after the unloading");
}

void CheckFiles(Session& session) {
  session.report.At("look at the files");
  Expect(session, Sql("PRAGMA integrity_check") == "ok", "the database is not whole");
  Expect(session, ReadFile(kBackup) == ReadFile(kDatabase), "the backup is not the database's copy");
  Expect(session, !FileExists(kRestoring), "the note of a restore is left");
  Expect(session, !FileExists(kStale), "the note of a stale backup is left");
}

/// A run directory that could not be made ends the service for the rest of the process: all else still works.
void CheckEndedService(Session& session) {
  session.report.isFinal = true;
  session.report.At("use a plug-in whose service has ended for good");
  Expect(session, session.fault.call == faults::Call::kMkdir && session.report.hits > 0,
         "the service ended for good without a reason");
  Expect(session, session.host.Execute("GetStatus").find("success") != std::string::npos, "a command failed");
  Expect(session, session.host.SetStatus(0) == 0, "switching off failed");
}

void CheckService(Session& session) {
  if (!session.host.IsLoaded()) Expect(session, session.host.Load(), "the plug-in cannot be loaded any more");
  Expect(session, session.host.SetStatus(1) == 0, "switching on failed");
  CheckReport(session, "http://after");
}

void CheckNextStart(Session& session) {
  Expect(session, session.host.Load(), "the plug-in cannot be loaded again");
  CheckLog(session);
  CheckUnloading(session);
}

}  // namespace

void CheckAll(Session& session, size_t keptWhenOff) {
  Expect(session, session.report.thrown == 0 || session.fault.call == faults::Call::kMemory,
         "something was thrown at the host though there was memory");
  CheckStorage(session);
  if (session.host.IsFinal()) return CheckEndedService(session);
  const auto switching = [keptWhenOff](Session& each) { CheckSwitching(each, keptWhenOff); };
  const std::vector<std::function<void(Session&)>> checks{CheckService,   CheckLog,   switching,
                                                          CheckUnloading, CheckFiles, CheckNextStart};
  for (const auto& check : checks) {
    // What comes after a failure would fail for the same reason, and slowly.
    if (session.report.HasFailed()) return;
    check(session);
  }
}

}  // namespace zav::test
