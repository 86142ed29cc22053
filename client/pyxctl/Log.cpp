#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <memory>

#include "Times.h"
#include "Verbs.h"

namespace zav::pyxctl {
namespace {

using pyxclient::Query;
using pyxclient::Record;

using Row = std::array<std::string, 5>;

/// The widest that a text makes its column.
constexpr std::size_t kWidestColumn = 32;

Row RowOf(const Record& record) {
  return {std::to_string(record.index), LocalText(record.time), std::to_string(record.time.time_since_epoch().count()),
          Printable(record.threat), Printable(record.url)};
}

void WriteTable(std::ostream& out, const std::vector<Row>& rows) {
  Row::size_type column = 0;
  std::array<std::size_t, std::tuple_size_v<Row>> widths{};
  for (std::size_t& width : widths) {
    for (const Row& row : rows) width = std::max(width, std::min(kWidestColumn, Width(row[column])));
    ++column;
  }
  widths.back() = 0;
  for (const Row& row : rows) {
    for (column = 0; column < row.size(); ++column) {
      out << (column == 0 ? "" : "  ") << Padded(row[column], widths[column]);
    }
    out << '\n';
  }
}

void WriteRecords(std::ostream& out, const std::vector<Record>& records) {
  if (records.empty()) {
    out << "no records\n";
    return;
  }
  std::vector<Row> rows = {{"INDEX", "TIME", "SECONDS", "THREAT", "URL"}};
  std::transform(records.begin(), records.end(), std::back_inserter(rows), RowOf);
  WriteTable(out, rows);
}

Json::Value DocumentOf(const std::vector<Record>& records) {
  Json::Value document(Json::arrayValue);
  for (const Record& record : records) {
    Json::Value& member = document.append(Json::objectValue);
    member["index"] = record.index;
    member["url"] = record.url;
    member["threat"] = record.threat;
    member["timestamp"] = static_cast<Json::Int64>(record.time.time_since_epoch().count());
  }
  return document;
}

}  // namespace

Action DeclareLog(CLI::App& command) {
  struct Asked {
    TimeRange range;
    std::int32_t maxCount = 0;
    std::int32_t startIndex = -1;
    bool reverse = false;
  };
  auto asked = std::make_shared<Asked>();
  DeclareRange(command, asked->range);
  DeclareNumber(command, "--max", asked->maxCount, "NUMBER", "Show at most so many records (default: all)");
  DeclareNumber(command, "--start", asked->startIndex, "INDEX", "Start at the record of this index");
  command.add_flag("--reverse", asked->reverse, "Show the newest record first");
  return [asked](pyxclient::Client& client, const Output& output) {
    const Query query{asked->range.from, asked->range.to, asked->maxCount, asked->startIndex, asked->reverse};
    std::vector<Record> records;
    for (const Record& record : client.Log(query)) records.push_back(record);
    output.Write(DocumentOf(records), [&records](std::ostream& out) { WriteRecords(out, records); });
  };
}

}  // namespace zav::pyxctl
