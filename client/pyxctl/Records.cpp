#include "Records.h"

#include "Exit.h"
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

std::optional<Record> NextThatFits(pyxclient::Log& log, std::size_t& tooLarge) {
  for (;;) {
    try {
      return log.Next();
    } catch (const pyxclient::Error& error) {
      if (error.failure() != pyxclient::Failure::kTooLarge) throw;
      ++tooLarge;
    }
  }
}

void ComplainOfTooLarge(std::size_t count) {
  if (count == 0) return;
  const std::string records = count == 1 ? "1 record is" : std::to_string(count) + " records are";
  Complain(records + " larger than an answer can be, and left out");
}

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
