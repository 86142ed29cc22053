#pragma once

#include <json/value.h>

#include <map>
#include <string>

#include "support/LogModel.h"

/// The model's values as the JSON that the plug-in stores and sends. Nothing of the plug-in's own code reads or writes
/// it here.
namespace zav::test {

/// The object that a text holds; null where it holds none.
Json::Value ParseObject(const std::string& text);

/// A value as compact text without comments; bytes that are no UTF-8 are replaced.
std::string Written(const Json::Value& value);

/// A member of an object, or of nothing, as the plug-in's readers take it.
int IntOf(const Json::Value& object, const std::string& key);
std::string TextOf(const Json::Value& object, const std::string& key);
/// The same for an object; null where it is none. Good as long as what it is looked up in.
const Json::Value& ObjectOf(const Json::Value& object, const std::string& key);

/// The "Storage" policy.
LogContent ReadContent(const Json::Value& storage);
/// The answer to a request for records, by their indexes.
std::map<int, LogRecord> ReadRecords(const Json::Value& records);
/// The answer of a request for the status.
LogSummary ReadSummary(const Json::Value& status);

/// The same the other way: what is read from it is equal.
Json::Value ToJson(const LogContent& content);
/// Null where there is none.
Json::Value ToJson(const std::map<int, LogRecord>& records);
/// Without "in_storage" where there is no record.
Json::Value ToJson(const LogSummary& summary);

/// Whether all texts of a value, its names included, are UTF-8: such a value survives being written.
bool IsUtf8(const Json::Value& value);

/// What a value is after it was written and parsed again: bytes that are no UTF-8 are replaced by the replacement
/// character, and of two members whose names become the same by that, the last one stays.
std::string Rewritten(const std::string& text);
Numbers Rewritten(const Numbers& numbers);
LogContent Rewritten(const LogContent& content);
LogFinding Rewritten(LogFinding finding);
LogSummary Rewritten(const LogSummary& summary);

std::string Describe(const LogContent& content);
std::string Describe(const LogFinding& finding);
std::string Describe(const LogSummary& summary);

}  // namespace zav::test
