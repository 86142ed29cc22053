#include "Verbs.h"

namespace zav::pyxctl {
namespace {

using pyxclient::Status;
using pyxclient::Tally;

/// The widest that a name makes its column.
constexpr std::size_t kNameColumn = 32;

Json::Value DocumentOf(const Tally& tally) {
  Json::Value document;
  for (const auto& [threat, count] : tally.byThreat) document[threat] = count;
  document["count"] = tally.total;
  return document;
}

Json::Value DocumentOf(const Status& status) {
  Json::Value document;
  document["config"]["max_index"] = status.maxIndex;
  document["config"]["max_file_size"] = status.maxRecords;
  document["config"]["max_logging_period"] = static_cast<Json::Int64>(status.maxPeriod.count());
  document["in_storage"] = DocumentOf(status.stored);
  document["state"] = DocumentOf(status.reported);
  return document;
}

void WriteTally(std::ostream& out, const char* title, const Tally& tally) {
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
  return [](pyxclient::Client& client, const Output& output) {
    const Status status = client.Status();
    output.Write(DocumentOf(status), [&status](std::ostream& out) { WriteStatus(out, status); });
  };
}

}  // namespace zav::pyxctl
