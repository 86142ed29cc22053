#pragma once

#include <array>
#include <optional>
#include <ostream>
#include <pyxclient/pyxclient.hpp>
#include <vector>

#include "Output.h"

namespace zav::pyxctl {

/// The keys of a record: its index and its time in seconds since the epoch are numbers, the rest is text; `time` is the
/// same time by RFC 3339.
inline constexpr std::array kRecordColumns = {"index", "timestamp", "time", "threat", "url"};

/// The next record of a walk that an answer can hold; adds those to `tooLarge` that none can.
std::optional<pyxclient::Record> NextThatFits(pyxclient::Log& log, std::size_t& tooLarge);

/// Says on standard error that so many were left out, unless there are none.
void ComplainOfTooLarge(std::size_t count);

Json::Value RowOf(const pyxclient::Record& record);

/// Records for a person: a table, or a sentence where there are none.
void WriteRecords(std::ostream& out, const std::vector<pyxclient::Record>& records, const Terminal& terminal);

/// A line of such a table, for records that come one by one.
void WriteRecord(std::ostream& out, const pyxclient::Record& record, const Terminal& terminal);

}  // namespace zav::pyxctl
