#include "Verbs.h"

namespace zav::pyxctl {
namespace {

using client::LogStatus;

/// The widest that a name makes its column.
constexpr std::size_t kNameColumn = 32;

Json::Value DocumentOf(const LogStatus::Tally& tally) {
  Json::Value document;
  for (const auto& [threat, count] : tally.byThreat) document[threat] = count;
  document["count"] = tally.total;
  return document;
}

Json::Value DocumentOf(const LogStatus& status) {
  Json::Value document;
  document["config"]["max_index"] = status.config.maxIndex;
  document["config"]["max_file_size"] = status.config.maxRecords;
  document["config"]["max_logging_period"] = status.config.maxPeriod;
  document["in_storage"] = DocumentOf(status.stored);
  document["state"] = DocumentOf(status.reported);
  return document;
}

void WriteTally(std::ostream& out, const char* title, const LogStatus::Tally& tally) {
  out << title << tally.total << '\n';
  for (const auto& [threat, count] : tally.byThreat) {
    out << "  " << Padded(Printable(threat), kNameColumn) << ' ' << count << '\n';
  }
}

void WriteStatus(std::ostream& out, const LogStatus& status) {
  WriteTally(out, "Records in the log: ", status.stored);
  WriteTally(out, "Reports in all: ", status.reported);
  out << "Records kept at most: " << status.config.maxRecords << '\n'
      << "Seconds a record is kept: " << status.config.maxPeriod << '\n'
      << "Index that renumbers the log: " << status.config.maxIndex << '\n';
}

}  // namespace

Action DeclareStatus(CLI::App& /*command*/) {
  return [](const client::Client& client, const Output& output) {
    const LogStatus status = client.GetLogStatus();
    output.Write(DocumentOf(status), [&status](std::ostream& out) { WriteStatus(out, status); });
  };
}

}  // namespace zav::pyxctl
