#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <ctime>
#include <memory>

#include "Verbs.h"

namespace zav::pyxctl {
namespace {

using client::LogQuery;
using client::Record;

using Row = std::array<std::string, 5>;

/// The widest that a text makes its column.
constexpr std::size_t kWidestColumn = 32;

std::string LocalTime(std::int32_t timestamp) {
  const std::time_t time = timestamp;
  std::tm parts{};
  std::array<char, 32> text{};
  if (::localtime_r(&time, &parts) == nullptr) return "-";
  return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &parts)};
}

Row RowOf(const Record& record) {
  return {std::to_string(record.index), LocalTime(record.timestamp), std::to_string(record.timestamp),
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
    member["timestamp"] = record.timestamp;
  }
  return document;
}

}  // namespace

Action DeclareLog(CLI::App& command) {
  auto query = std::make_shared<LogQuery>();
  DeclareRange(command, query->range);
  DeclareNumber(command, "--max", query->maxCount, "NUMBER", "Show at most so many records (default: all)");
  DeclareNumber(command, "--start", query->startIndex, "INDEX", "Start at the record of this index");
  command.add_flag("--reverse", query->reverse, "Show the newest record first");
  return [query](const client::Client& client, const Output& output) {
    const std::vector<Record> records = client.GetLog(*query);
    output.Write(DocumentOf(records), [&records](std::ostream& out) { WriteRecords(out, records); });
  };
}

}  // namespace zav::pyxctl
