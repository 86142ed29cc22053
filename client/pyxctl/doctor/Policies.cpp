#include <algorithm>
#include <array>
#include <charconv>

#include "doctor/DatabaseCopy.h"
#include "doctor/Examination.h"
#include "doctor/PolicyRules.h"

namespace zav::pyxctl::doctor {
namespace {

constexpr std::array kPolicies = {"Service", "State", "Storage"};

Findings FindingsOf(const std::vector<Breach>& breaches, Severity severity) {
  Findings findings;
  for (const Breach& each : breaches) {
    findings.push_back({severity, "", each.where + " " + each.what, each.meaning});
  }
  return findings;
}

/// What is wrong with every record of a log is said of some of them.
void AddSome(Findings& all, const Findings& more) {
  constexpr std::size_t kMost = 20;
  all.insert(all.end(), more.begin(), more.begin() + static_cast<std::ptrdiff_t>(std::min(kMost, more.size())));
  if (more.size() <= kMost) return;
  all.push_back(
      {more.front().severity, "", "there are " + std::to_string(more.size() - kMost) + " more of that kind", ""});
}

bool IsIndex(const std::string& name) {
  int index = 0;
  const char* const end = name.data() + name.size();
  const auto [rest, error] = std::from_chars(name.data(), end, index);
  return error == std::errc() && rest == end && std::to_string(index) == name && index >= 0;
}

/// Records that no request can reach, by their names.
Findings JudgeRecords(const Json::Value& storage) {
  Findings findings;
  const Json::Value& last = storage["state"].isObject() ? storage["state"]["last_index"] : Json::Value::nullSingleton();
  for (const std::string& name : storage.getMemberNames()) {
    if (name == "config" || name == "state") continue;
    if (!IsIndex(name)) {
      findings.push_back({Severity::kWarning, "", "Storage." + name + " is no index of a record",
                          "no request gives that record; a reset of the log removes it"});
    } else if (last.isInt() && std::stoi(name) > last.asInt()) {
      findings.push_back({Severity::kWarning, "",
                          "Storage." + name + " lies behind the last index, which is " + last.asString(),
                          "requests for the whole log leave that record out, and a new one may take its place"});
    }
  }
  return findings;
}

Findings JudgeStored(const std::string& name, const std::string& text) {
  std::string error;
  const auto policy = ReadJson(text, error);
  if (!policy || !policy->isObject()) {
    return {{Severity::kProblem, "", name + " is no JSON object" + (error.empty() ? "" : ": " + error),
             "the plug-in takes its defaults for it; the daemon's commands set it anew"}};
  }
  Findings findings = FindingsOf(BreachesInStored(name, *policy), Severity::kWarning);
  if (name != "Storage") return findings;
  const Findings records = JudgeRecords(*policy);
  findings.insert(findings.end(), records.begin(), records.end());
  return findings;
}

/// What a file that keeps every rule may still not be meant to say.
void JudgeLogging(const Json::Value& file, Findings& findings) {
  const Json::Value& state = file["PYXPlugin"]["State"];
  if (state["logging_state"] == "enabled") return;
  findings.push_back({Severity::kNote, "",
                      "PYXPlugin.State.logging_state leaves logging off, and each start of the "
                      "daemon empties the log then",
                      "set it to \"enabled\" if a new device is to log threats"});
}

Findings JudgeContent(const Content& content, const std::string& path) {
  if (content.IsRead()) return JudgePolicy(content.bytes);
  if (content.IsForbidden()) return {NotExamined(path)};
  const std::string message =
      content.IsMissing() ? "there is no " + path : path + " cannot be read: " + content.Reason();
  return {{Severity::kProblem, "", message,
           "put a policy.json there: without it the plug-in cannot start on a new database, nor replace what is lost"}};
}

}  // namespace

Findings ExamineStoredPolicies(const Seen& seen) {
  // Why there is nothing to examine is said of the database.
  if (!seen.database.IsRead() || !seen.isSettled) return {{Severity::kNote, "", "they were not examined", ""}};
  std::map<std::string, std::string> rows;
  try {
    rows = DatabaseCopy(seen.database.bytes).Rows();
  } catch (const DatabaseError& error) {
    return {{Severity::kWarning, "", std::string("they cannot be read: ") + error.what(), "see the database"}};
  }
  Findings findings;
  for (const char* name : kPolicies) {
    const auto row = rows.find(name);
    if (row != rows.end()) {
      AddSome(findings, JudgeStored(name, row->second));
      continue;
    }
    findings.push_back({Severity::kWarning, "", std::string(name) + " is missing",
                        "the next start of the daemon takes it from the backup or from policy.json"});
  }
  return findings;
}

Findings JudgePolicy(const std::string& text) {
  std::string error;
  const auto file = ReadJson(text, error);
  if (!file || !file->isObject()) {
    return {{Severity::kProblem, "",
             text.empty() ? "it is empty" : "it is no JSON object" + (error.empty() ? "" : ": " + error),
             "correct it: the plug-in cannot start from it on a new database, nor replace what is lost"}};
  }
  Findings findings = LaxJson(text);
  AddSome(findings, FindingsOf(BreachesInFile(*file), Severity::kProblem));
  if (IsSound(findings)) JudgeLogging(*file, findings);
  return findings;
}

Findings ExamineDefaultPolicy(const Seen& seen) {
  // That is said of the directory.
  if (!EntryAt(seen.paths.storageDirectory).IsThere()) return {{Severity::kNote, "", "it was not examined", ""}};
  return JudgeContent(seen.defaultPolicy, seen.paths.DefaultPolicy());
}

Findings ExaminePolicyFile(const std::string& path) {
  const Content content = ReadPolicyFile(path);
  Findings findings = content.IsMissing()
                          ? Findings{{Severity::kProblem, "", "there is no such file", "check the path"}}
                          : JudgeContent(content, path);
  if (findings.empty()) findings.push_back({Severity::kOk, "", "it keeps its rules", ""});
  for (Finding& each : findings) each.subject = path;
  return findings;
}

}  // namespace zav::pyxctl::doctor
