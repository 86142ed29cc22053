#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <memory>

#include "Text.h"
#include "Verbs.h"
#include "doctor/Examination.h"
#include "doctor/ServiceRoot.h"

namespace zav::pyxctl {
namespace {

using doctor::Finding;
using doctor::Findings;
using doctor::Severity;

struct Asked {
  std::string storage;
  std::string policy;
};

constexpr const char* kColumns[] = {"severity", "subject", "message", "advice"};

Json::Value RowOf(const Finding& finding) {
  Json::Value row;
  row["severity"] = NameOf(finding.severity);
  row["subject"] = finding.subject;
  row["message"] = finding.message;
  row["advice"] = finding.advice;
  return row;
}

Json::Value DocumentOf(const Findings& findings, const std::vector<Json::Value>& rows) {
  Json::Value document;
  document["sound"] = IsSound(findings);
  Json::Value& list = document["findings"] = Json::Value(Json::arrayValue);
  for (const Json::Value& each : rows) list.append(each);
  return document;
}

Colour ColourOf(Severity severity) {
  constexpr std::array kColours = {Colour::kGreen, Colour::kDim, Colour::kYellow, Colour::kRed};
  return kColours.at(static_cast<std::size_t>(severity));
}

void WriteFindings(std::ostream& out, const Findings& findings, const Terminal& terminal) {
  constexpr std::size_t kSeverityColumn = 9;
  for (const Finding& each : findings) {
    const std::string severity = Padded(NameOf(each.severity), kSeverityColumn);
    out << terminal.Painted(ColourOf(each.severity), severity) << Printable(each.subject) << ": "
        << Printable(each.message) << '\n';
    if (!each.advice.empty()) out << std::string(kSeverityColumn + 2, ' ') << Printable(each.advice) << '\n';
  }
}

Findings Examine(const Asked& asked, const pyxclient::Options& options) {
  if (!asked.policy.empty()) return doctor::ExaminePolicyFile(asked.policy);
  doctor::Paths paths;
  paths.socket = options.socket;
  paths.storageDirectory =
      asked.storage.empty() ? doctor::RootOfService(options.socket) + paths.storageDirectory : asked.storage;
  return ExamineDevice(paths, options);
}

}  // namespace

Action DeclareDoctor(CLI::App& command) {
  auto asked = std::make_shared<Asked>();
  command.add_option("--policy", asked->policy, "Check this default policy file alone")->type_name("FILE");
  command.add_option("--storage", asked->storage, "The plug-in's storage directory (default: the service's own)")
      ->type_name("DIRECTORY");
  return [asked](Session& session) {
    const Findings findings = Examine(*asked, session.options);
    std::vector<Json::Value> rows;
    std::transform(findings.begin(), findings.end(), std::back_inserter(rows), RowOf);
    session.output.Page();
    session.output.WriteRows(kColumns, rows, DocumentOf(findings, rows),
                             [&](std::ostream& out) { WriteFindings(out, findings, session.output.terminal()); });
    return IsSound(findings) ? ExitStatus::kDone : ExitStatus::kRejected;
  };
}

}  // namespace zav::pyxctl
