#include <algorithm>
#include <cctype>

#include "doctor/DatabaseCopy.h"
#include "doctor/Examination.h"

namespace zav::pyxctl::doctor {
namespace {

constexpr const char* kTable = "PYXPlugin";
constexpr const char* kTableText =
    "CREATE TABLE PYXPlugin (name TEXT NOT NULL, value TEXT, PRIMARY KEY (name) ON CONFLICT REPLACE)";

Finding Problem(std::string message, std::string advice) {
  return {Severity::kProblem, "", std::move(message), std::move(advice)};
}

Finding Warning(std::string message, std::string advice) {
  return {Severity::kWarning, "", std::move(message), std::move(advice)};
}

/// The plug-in fills its text with runs of blanks.
std::string WithSingleBlanks(std::string text) {
  const auto isBlank = [](unsigned char each) { return std::isspace(each) != 0; };
  std::replace_if(text.begin(), text.end(), isBlank, ' ');
  const auto bothBlank = [](char left, char right) { return left == ' ' && right == ' '; };
  text.erase(std::unique(text.begin(), text.end(), bothBlank), text.end());
  return text;
}

Finding NotAsMade(const std::string& sql) {
  return Warning("its table " + std::string(kTable) + " is not as the plug-in makes it: " + sql,
                 "find out who made it; without it the plug-in starts from policy.json");
}

Finding NotThePlugins(const std::string& type, const std::string& name) {
  return Warning("it holds what is not the plug-in's: " + type + " " + name, "find out who made it");
}

Findings JudgeSchema(DatabaseCopy& database) {
  Findings findings;
  bool hasTable = false;
  for (const auto& [key, sql] : database.Schema()) {
    const auto& [type, name] = key;
    if (type == "table" && name == kTable) {
      hasTable = true;
      if (WithSingleBlanks(sql) != kTableText) findings.push_back(NotAsMade(sql));
    } else if (!(type == "index" && name.starts_with("sqlite_autoindex_"))) {
      findings.push_back(NotThePlugins(type, name));
    }
  }
  if (!hasTable) {
    findings.push_back(
        Problem("it lacks the table " + std::string(kTable), "the next report, or change of a setting, makes it"));
  }
  return findings;
}

bool IsSoundDatabase(const Content& content) {
  return content.IsRead() && !content.bytes.empty() && DatabaseCopy(content.bytes).Damage().empty();
}

/// What to do about a damaged database.
const char* RemedyOf(const Seen& seen) {
  if (IsSoundDatabase(seen.backup)) {
    return "restart the daemon: the plug-in sets the file aside then, and puts the backup in its place";
  }
  if (seen.service.Answers()) {
    return "there is no sound backup: do not restart the daemon, but have something reported or a setting changed: the "
           "service writes what it holds in memory";
  }
  return "there is no sound backup: the log is lost; the next report, or change of a setting, begins it anew";
}

/// What the bytes of a database are worth. @param remedy  what to do about damage.
Findings JudgeBytes(const std::string& bytes, const std::string& remedy) {
  DatabaseCopy database(bytes);
  const std::string damage = database.Damage();
  if (!damage.empty()) return {Problem("it is damaged: " + damage, remedy)};
  return JudgeSchema(database);
}

Findings JudgeMissingDatabase(const Seen& seen) {
  const std::string path = seen.paths.Database();
  // That is said of the directory.
  if (!EntryAt(seen.paths.storageDirectory).IsThere()) return {{Severity::kNote, "", "it was not examined", ""}};
  if (seen.service.Answers()) {
    return {Problem("there is no " + path + ": the service works on a file that was removed",
                    "stop the daemon, copy the backup there, and start it")};
  }
  if (!seen.backup.IsRead()) {
    return {{Severity::kNote, "", "there is no " + path + " yet",
             "the first start of the plug-in makes it from policy.json"}};
  }
  const bool comesBack = EntryAt(seen.paths.Restoring()).IsThere() || EntryAt(seen.paths.Opening()).IsThere();
  if (comesBack) {
    return {Warning("there is no " + path + ": a restore was cut short", "the next start of the daemon finishes it")};
  }
  return {Problem("there is no " + path +
                      ", but a backup: the next start of the daemon makes a new database, and "
                      "overwrites the backup with it",
                  "if the log is to be kept, copy the backup there before that")};
}

Findings JudgeUnreadable(const Content& content, const std::string& path) {
  if (content.IsForbidden()) return {NotExamined(path)};
  return {Problem(path + " cannot be read: " + content.Reason(),
                  "put a readable file there, or remove it; the log of the kernel says if the disk fails")};
}

Findings JudgeUnsettled(const Seen& seen) {
  if (seen.service.Answers() || !seen.journalIsHot) {
    return {Warning("it is being written all the time, and was not examined", "look again when there is less to do")};
  }
  return {Warning("a write was cut short, and the database was not examined",
                  "start the daemon, whose plug-in takes that write back, and look again; leave " +
                      seen.paths.Journal() + " where it is")};
}

/// Since another program left it so, the file alone may not be all.
Findings JudgeWriteAheadLog(const Seen& seen) {
  const Entry log = EntryAt(seen.paths.WriteAheadLog());
  if (!log.IsThere() || log.info.st_size == 0) return {};
  return {Warning(
      "another program has it open, or left a log of its writes, which was not examined: " + seen.paths.WriteAheadLog(),
      "leave the database to the plug-in; the next start of the daemon takes these writes over")};
}

}  // namespace

Findings ExamineDatabase(const Seen& seen) {
  if (seen.database.IsMissing()) return JudgeMissingDatabase(seen);
  if (!seen.database.IsRead()) return JudgeUnreadable(seen.database, seen.paths.Database());
  if (!seen.isSettled) return JudgeUnsettled(seen);
  Findings findings = JudgeBytes(seen.database.bytes, RemedyOf(seen));
  for (Finding& each : JudgeWriteAheadLog(seen)) findings.push_back(std::move(each));
  return findings;
}

Findings ExamineBackup(const Seen& seen) {
  if (seen.backup.IsMissing() && !seen.database.IsRead()) return {{Severity::kNote, "", "there is none yet", ""}};
  if (seen.backup.IsMissing()) {
    return {Warning("there is no " + seen.paths.Backup() + ": damage to the database loses the log",
                    "the next report, or change of a setting, makes it")};
  }
  if (!seen.backup.IsRead()) return JudgeUnreadable(seen.backup, seen.paths.Backup());
  const std::string remedy = "the next report, or change of a setting, makes it anew from the database";
  if (seen.backup.bytes.empty()) return {Warning("it is empty: damage to the database loses the log", remedy)};
  Findings findings = JudgeBytes(seen.backup.bytes, remedy);
  if (!findings.empty() || !seen.isSettled || !IsSoundDatabase(seen.database)) return findings;
  if (seen.database.bytes != seen.backup.bytes) {
    findings.push_back(
        Warning("it does not hold what the database holds",
                "see that there is room; the next report, or change of a setting, brings it up to date"));
  }
  return findings;
}

}  // namespace zav::pyxctl::doctor
