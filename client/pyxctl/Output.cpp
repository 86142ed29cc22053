#include "Output.h"

#include <json/writer.h>

#include <sstream>
#include <string_view>

#include "Pager.h"
#include "Text.h"

namespace zav::pyxctl {
namespace {

constexpr const char* kVersionKey = "schema_version";

/// The writer takes every text for UTF-8.
Json::Value WithValidTexts(Json::Value value) {
  if (value.isString()) return Valid(value.asString());
  if (value.isObject() || value.isArray()) {
    for (Json::Value& each : value) each = WithValidTexts(each);
  }
  return value;
}

/// One line of ASCII.
std::string JsonText(const Json::Value& value) {
  static const Json::StreamWriterBuilder kOnOneLine = [] {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["precision"] = 6;
    return builder;
  }();
  std::string text = Json::writeString(kOnOneLine, WithValidTexts(value));
  // The one control character that the writer leaves as it is.
  for (auto at = text.find('\x7f'); at != std::string::npos; at = text.find('\x7f', at)) {
    text.replace(at, 1, "\\u007f");
  }
  return text;
}

Json::Value WithVersion(Json::Value object) {
  object[kVersionKey] = kSchemaVersion;
  return object;
}

/// A text as a cell: printable, nothing that a spreadsheet takes for a formula, and in quotes where a comma or a quote
/// would end it.
std::string Cell(const std::string& text) {
  constexpr std::string_view kFormulaBeginnings = "=+-@";
  std::string cell = Printable(text);
  if (!cell.empty() && kFormulaBeginnings.find(cell.front()) != std::string_view::npos) {
    cell.replace(0, 1, Escaped(cell.front()));
  }
  if (cell.find_first_of("\", ") == std::string::npos) return cell;
  std::string quoted = "\"";
  for (const char each : cell) quoted += each == '"' ? std::string("\"\"") : std::string(1, each);
  return quoted + '"';
}

std::string CellOf(const Json::Value& value) {
  return value.isString() ? Cell(value.asString()) : JsonText(value);
}

}  // namespace

void Output::Page() {
  if (!mayPage_ || format_ != Format::kHuman || !terminal_.isTerminal) return;
  pager_ = PagerCommand();
  // The pager cuts lines at its width by itself, and shows the rest of them.
  if (!pager_.empty()) terminal_.width = 0;
}

void Output::Write(const Human& human) {
  if (pager_.empty()) return human(stream_);
  std::ostringstream text;
  human(text);
  if (!ShowThrough(pager_, text.str())) stream_ << text.str();
}

void Output::WriteRow(Columns columns, const Json::Value& row, const Human& human) {
  if (format_ == Format::kHuman) return Write(human);
  BeginRows(columns);
  WriteOnlyRow(columns, row);
}

void Output::WriteRows(Columns columns, const std::vector<Json::Value>& rows, const Json::Value& document,
                       const Human& human) {
  if (format_ == Format::kHuman) return Write(human);
  if (format_ == Format::kJson) {
    stream_ << JsonText(WithVersion(document)) << '\n';
    return;
  }
  BeginRows(columns);
  for (const Json::Value& row : rows) WriteOnlyRow(columns, row);
}

void Output::BeginRows(Columns columns) {
  if (format_ == Format::kCsv) WriteHeader(columns);
}

void Output::AddRow(Columns columns, const Json::Value& row, const Human& human) {
  if (format_ == Format::kHuman) return Write(human);
  WriteOnlyRow(columns, row);
}

bool Output::Flush() {
  return static_cast<bool>(stream_.flush());
}

void Output::WriteHeader(Columns columns) {
  stream_ << kVersionKey;
  for (const char* column : columns) stream_ << ',' << column;
  stream_ << '\n';
}

void Output::WriteOnlyRow(Columns columns, const Json::Value& row) {
  if (format_ != Format::kCsv) {
    stream_ << JsonText(WithVersion(row)) << '\n';
    return;
  }
  stream_ << kSchemaVersion;
  for (const char* column : columns) stream_ << ',' << CellOf(row[column]);
  stream_ << '\n';
}

}  // namespace zav::pyxctl
