#include "Records.h"

#include "Table.h"
#include "Text.h"
#include "Times.h"

namespace zav::pyxctl {
namespace {

using pyxclient::Record;

/// The columns of records that come one by one: an index of up to five digits, a time, most names of threats.
const std::vector<std::size_t> kUsualWidths = {5, 19, 12};

Table::Cells CellsOf(const Record& record) {
  return {std::to_string(record.index), LocalText(record.time), Printable(record.threat), Printable(record.url)};
}

}  // namespace

Json::Value RowOf(const Record& record) {
  Json::Value row;
  row["index"] = record.index;
  row["timestamp"] = static_cast<Json::Int64>(record.time.time_since_epoch().count());
  row["time"] = Rfc3339Text(record.time);
  row["threat"] = record.threat;
  row["url"] = record.url;
  return row;
}

void WriteRecords(std::ostream& out, const std::vector<Record>& records, const Terminal& terminal) {
  if (records.empty()) {
    out << "no records\n";
    return;
  }
  Table table({"INDEX", "TIME", "THREAT", "URL"});
  for (const Record& record : records) table.Add(CellsOf(record));
  table.Write(out, terminal);
}

void WriteRecord(std::ostream& out, const Record& record, const Terminal& terminal) {
  out << TableLine(CellsOf(record), kUsualWidths, terminal) << '\n';
}

}  // namespace zav::pyxctl
