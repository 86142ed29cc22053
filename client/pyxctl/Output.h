#pragma once

#include <json/value.h>

#include <functional>
#include <ostream>
#include <span>
#include <string>
#include <vector>

#include "Terminal.h"

namespace zav::pyxctl {

enum class Format { kHuman, kJson, kNdjson, kCsv };

/// The version of what programs read: of the keys, what they mean, and their types. A key that is added does not change
/// it.
constexpr int kSchemaVersion = 1;

/// The keys of a row, in the order of its columns.
using Columns = std::span<const char* const>;

/// Where the result of a verb goes, in the form that was asked for: for a person as the verb words it; as one JSON
/// document on one line; as rows, each a JSON object on a line of its own; or as those rows with their columns'
/// names above them, comma-separated. Documents and rows name their version.
class Output {
 public:
  using Human = std::function<void(std::ostream&)>;

  Output(std::ostream& stream, Format format, const Terminal& terminal, bool mayPage)
      : stream_(stream), format_(format), terminal_(terminal), mayPage_(mayPage) {}

  Format format() const { return format_; }
  const Terminal& terminal() const { return terminal_; }

  /// Lets a person read what follows page by page, where there is a terminal and a pager is wanted.
  void Page();

  /// Writes a result that is one row: `row`, an object, is the document too.
  void WriteRow(Columns columns, const Json::Value& row, const Human& human);

  /// Writes a result of several rows, of which `document`, an object, tells the same.
  void WriteRows(Columns columns, const std::vector<Json::Value>& rows, const Json::Value& document,
                 const Human& human);

  /// Begins a result whose rows come one by one and have no end, of which no document can be made: it is given in
  /// rows then.
  void BeginRows(Columns columns);
  void AddRow(Columns columns, const Json::Value& row, const Human& human);

  /// Writes out what is held back; false where it could not be written.
  bool Flush();

 private:
  void Write(const Human& human);
  void WriteHeader(Columns columns);
  void WriteOnlyRow(Columns columns, const Json::Value& row);

  std::ostream& stream_;
  Format format_;
  Terminal terminal_;
  bool mayPage_;
  /// Empty where there is to be none.
  std::string pager_;
};

}  // namespace zav::pyxctl
