#include "Documents.h"

#include <json/json.h>

#include <algorithm>
#include <charconv>
#include <memory>

namespace zav::client {
namespace {

constexpr const char* kCount = "count";

[[noreturn]] void Refuse(const char* what) {
  throw Error(ErrorKind::kMalformed, what);
}

Json::Value Parse(const std::string& text) try {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value document;
  if (!reader->parse(text.data(), text.data() + text.size(), &document, nullptr) || !document.isObject()) {
    Refuse("the service's answer is no JSON object");
  }
  return document;
} catch (const Json::Exception&) {
  Refuse("the service's answer is no JSON that can be read");
}

/// The decimal text of an index and nothing else.
std::int32_t ReadIndex(const std::string& key) {
  std::int32_t index = -1;
  std::from_chars(key.data(), key.data() + key.size(), index);
  if (index < 0 || std::to_string(index) != key) Refuse("a record of the service's answer has no index");
  return index;
}

std::string TextOf(const Json::Value& record, const char* key) {
  const Json::Value& value = record[key];
  if (!value.isString()) Refuse("a record of the service's answer lacks a text");
  return value.asString();
}

Record ReadRecord(const std::string& key, const Json::Value& value) {
  if (!value.isObject()) Refuse("a record of the service's answer is no JSON object");
  const Json::Value& timestamp = value["timestamp"];
  if (!timestamp.isInt()) Refuse("a record of the service's answer has no time");
  return {ReadIndex(key), TextOf(value, "url"), TextOf(value, "threat"), timestamp.asInt()};
}

/// A section of the status; one that is not there is empty.
Json::Value SectionOf(const Json::Value& status, const char* key) {
  Json::Value section = status.get(key, Json::objectValue);
  if (!section.isObject()) Refuse("a section of the service's status is no JSON object");
  return section;
}

std::int32_t NumberOf(const Json::Value& section, const char* key) {
  const Json::Value value = section.get(key, 0);
  if (!value.isInt()) Refuse("a number of the service's status is none");
  return value.asInt();
}

LogStatus::Tally ReadTally(const Json::Value& section) {
  LogStatus::Tally tally{NumberOf(section, kCount), {}};
  for (const std::string& name : section.getMemberNames()) {
    if (name != kCount && section[name].isInt()) tally.byThreat.emplace_back(name, section[name].asInt());
  }
  return tally;
}

}  // namespace

std::vector<Record> ReadRecords(const std::string& text) {
  const Json::Value document = Parse(text);
  std::vector<Record> records;
  records.reserve(document.size());
  for (auto member = document.begin(); member != document.end(); ++member) {
    records.push_back(ReadRecord(member.name(), *member));
  }
  // The members stand in the order of their text, "10" before "9".
  std::sort(records.begin(), records.end(), [](const Record& a, const Record& b) { return a.index < b.index; });
  return records;
}

LogStatus ReadLogStatus(const std::string& text) {
  const Json::Value document = Parse(text);
  const Json::Value config = SectionOf(document, "config");
  LogStatus status;
  status.settings = {NumberOf(config, "max_index"), NumberOf(config, "max_file_size"),
                     NumberOf(config, "max_logging_period")};
  status.stored = ReadTally(SectionOf(document, "in_storage"));
  status.reported = ReadTally(SectionOf(document, "state"));
  return status;
}

}  // namespace zav::client
