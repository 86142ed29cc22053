#include "Text.h"
#include "Verbs.h"

namespace zav::pyxctl {
namespace {

using pyxclient::Status;
using pyxclient::Tally;

constexpr const char* kColumns[] = {"section", "name", "value"};

Json::Value RowOf(const char* section, const std::string& name, std::int64_t value) {
  Json::Value row;
  row["section"] = section;
  row["name"] = name;
  row["value"] = static_cast<Json::Int64>(value);
  return row;
}

/// The sections of the tallies tell a kind of threat that is named "total" from the total.
std::vector<Json::Value> RowsOf(const Status& status) {
  std::vector<Json::Value> rows = {
      RowOf("settings", "max_records", status.maxRecords), RowOf("settings", "max_period", status.maxPeriod.count()),
      RowOf("settings", "max_index", status.maxIndex), RowOf("stored", "total", status.stored.total),
      RowOf("reported", "total", status.reported.total)};
  for (const auto& [threat, count] : status.stored.byThreat) rows.push_back(RowOf("stored_threats", threat, count));
  for (const auto& [threat, count] : status.reported.byThreat) rows.push_back(RowOf("reported_threats", threat, count));
  return rows;
}

Json::Value DocumentOf(const Tally& tally) {
  Json::Value document;
  document["total"] = tally.total;
  Json::Value& threats = document["threats"] = Json::Value(Json::arrayValue);
  for (const auto& [threat, count] : tally.byThreat) {
    Json::Value& member = threats.append(Json::objectValue);
    member["threat"] = threat;
    member["count"] = count;
  }
  return document;
}

Json::Value DocumentOf(const Status& status) {
  Json::Value document;
  document["settings"]["max_records"] = status.maxRecords;
  document["settings"]["max_period"] = static_cast<Json::Int64>(status.maxPeriod.count());
  document["settings"]["max_index"] = status.maxIndex;
  document["stored"] = DocumentOf(status.stored);
  document["reported"] = DocumentOf(status.reported);
  return document;
}

void WriteTally(std::ostream& out, const char* title, const Tally& tally) {
  // Wide enough for most names of threats.
  constexpr std::size_t kNameColumn = 32;
  out << title << tally.total << '\n';
  for (const auto& [threat, count] : tally.byThreat) {
    out << "  " << Padded(Printable(threat), kNameColumn) << ' ' << count << '\n';
  }
}

void WriteStatus(std::ostream& out, const Status& status) {
  WriteTally(out, "Records in the log: ", status.stored);
  WriteTally(out, "Reports in all: ", status.reported);
  out << "Records kept at most: " << status.maxRecords << '\n'
      << "Seconds a record is kept: " << status.maxPeriod.count() << '\n'
      << "Index that renumbers the log: " << status.maxIndex << '\n';
}

}  // namespace

Action DeclareStatus(CLI::App& /*command*/) {
  return [](Session& session) {
    const Status status = session.client.Status();
    session.output.Page();
    session.output.WriteRows(kColumns, RowsOf(status), DocumentOf(status),
                             [&status](std::ostream& out) { WriteStatus(out, status); });
    return ExitStatus::kDone;
  };
}

}  // namespace zav::pyxctl
