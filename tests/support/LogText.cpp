#include "support/LogText.h"

#include <json/reader.h>
#include <json/writer.h>

#include <algorithm>
#include <memory>
#include <utility>

namespace zav::test {
namespace {

const Json::Value* Find(const Json::Value& object, const std::string& key) {
  return object.isObject() ? object.find(key.data(), key.data() + key.size()) : nullptr;
}

/// Any value; null where the text holds none.
Json::Value Parse(const std::string& text) {
  thread_local const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  Json::Value value;
  std::string errors;
  try {
    return reader->parse(text.data(), text.data() + text.size(), &value, &errors) ? value : Json::Value();
  } catch (const Json::Exception&) {
    // Nested too deep.
    return {};
  }
}

/// Whether a value is an integer of 32 bits, and not merely equal to one.
bool IsPlainInt(const Json::Value& value) {
  return value.type() == Json::intValue && value.isInt();
}

Number ReadNumber(const Json::Value& value) {
  if (IsPlainInt(value)) return {value.asInt()};
  return {value.isInt() ? value.asInt() : 0, Written(value)};
}

Numbers ReadNumbers(const Json::Value& object) {
  Numbers numbers;
  for (auto member = object.begin(); member != object.end(); ++member) numbers[member.name()] = ReadNumber(*member);
  return numbers;
}

std::optional<Numbers> ReadObject(const Json::Value& value) {
  return value.isObject() ? std::optional(ReadNumbers(value)) : std::nullopt;
}

bool IsPlainRecord(const Json::Value& object) {
  return object.size() == 3 && object["url"].isString() && object["threat"].isString() &&
         IsPlainInt(object["timestamp"]);
}

std::optional<LogRecord> ReadRecord(const Json::Value& value) {
  if (!value.isObject()) return std::nullopt;
  return LogRecord{TextOf(value, "url"), TextOf(value, "threat"), IntOf(value, "timestamp"),
                   IsPlainRecord(value) ? std::string() : Written(value)};
}

Json::Value NumbersToJson(const Numbers& numbers) {
  Json::Value object(Json::objectValue);
  for (const auto& [name, number] : numbers) object[name] = number.odd.empty() ? number.value : Parse(number.odd);
  return object;
}

Json::Value RecordToJson(const LogRecord& record) {
  if (!record.odd.empty()) return Parse(record.odd);
  Json::Value object;
  object["url"] = record.url;
  object["threat"] = record.threat;
  object["timestamp"] = record.timestamp;
  return object;
}

/// What is odd was written already: two members of one name may be left.
std::string RewrittenOdd(const std::string& odd) {
  return odd.empty() ? odd : Written(Parse(odd));
}

LogRecord RewrittenRecord(const LogRecord& record) {
  return {Rewritten(record.url), Rewritten(record.threat), record.timestamp, RewrittenOdd(record.odd)};
}

std::string Describe(const Numbers& numbers) {
  std::string text;
  for (const auto& [name, number] : numbers) {
    text += " [" + name + "] " + (number.odd.empty() ? std::to_string(number.value) : number.odd);
  }
  return text + "\n";
}

std::string Describe(const LogRecord& record) {
  return "[" + record.url + "] [" + record.threat + "] " + std::to_string(record.timestamp) + " " + record.odd + "\n";
}

/// The size of the character that begins at `at`; 0 where there is no well-formed one.
std::size_t CharacterSize(const std::string& text, std::size_t at) {
  const auto byte = [&](std::size_t index) {
    return index < text.size() ? static_cast<unsigned char>(text[index]) : 0U;
  };
  const unsigned first = byte(at);
  if (first < 0x80) return 1;
  const std::size_t size = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
  if (first < 0xc2 || first > 0xf4) return 0;
  for (std::size_t index = 1; index < size; ++index) {
    if ((byte(at + index) & 0xc0U) != 0x80) return 0;
  }
  const unsigned second = byte(at + 1);
  const bool overlong = (first == 0xe0 && second < 0xa0) || (first == 0xf0 && second < 0x90);
  const bool surrogate = first == 0xed && second >= 0xa0;
  const bool tooLarge = first == 0xf4 && second >= 0x90;
  return overlong || surrogate || tooLarge ? 0 : size;
}

bool IsUtf8(const std::string& text) {
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t size = CharacterSize(text, at);
    if (size == 0) return false;
    at += size;
  }
  return true;
}

}  // namespace

Json::Value ParseObject(const std::string& text) {
  Json::Value value = Parse(text);
  return value.isObject() ? value : Json::Value();
}

int IntOf(const Json::Value& object, const std::string& key) {
  const Json::Value* member = Find(object, key);
  return member != nullptr && member->isInt() ? member->asInt() : 0;
}

std::string TextOf(const Json::Value& object, const std::string& key) {
  const Json::Value* member = Find(object, key);
  return member != nullptr && member->isString() ? member->asString() : std::string();
}

const Json::Value& ObjectOf(const Json::Value& object, const std::string& key) {
  const Json::Value* member = Find(object, key);
  return member != nullptr && member->isObject() ? *member : Json::Value::nullSingleton();
}

LogContent ReadContent(const Json::Value& storage) {
  LogContent content;
  for (auto member = storage.begin(); member != storage.end(); ++member) {
    const std::string key = member.name();
    if (key == "config") {
      content.config = ReadObject(*member);
    } else if (key == "state") {
      content.counters = ReadObject(*member);
    } else {
      content.records[key] = ReadRecord(*member);
    }
  }
  return content;
}

std::map<int, LogRecord> ReadRecords(const Json::Value& records) {
  std::map<int, LogRecord> read;
  for (auto member = records.begin(); member != records.end(); ++member) {
    if (const auto record = ReadRecord(*member)) read[std::stoi(member.name())] = *record;
  }
  return read;
}

LogSummary ReadSummary(const Json::Value& status) {
  return {ReadNumbers(ObjectOf(status, "in_storage")), ReadNumbers(ObjectOf(status, "config")),
          ReadNumbers(ObjectOf(status, "state"))};
}

Json::Value ToJson(const LogContent& content) {
  Json::Value storage(Json::objectValue);
  if (content.config) storage["config"] = NumbersToJson(*content.config);
  if (content.counters) storage["state"] = NumbersToJson(*content.counters);
  for (const auto& [key, record] : content.records) storage[key] = record ? RecordToJson(*record) : Json::Value();
  return storage;
}

Json::Value ToJson(const std::map<int, LogRecord>& records) {
  Json::Value object;
  for (const auto& [index, record] : records) object[std::to_string(index)] = RecordToJson(record);
  return object;
}

Json::Value ToJson(const LogSummary& summary) {
  Json::Value status;
  if (!summary.inStorage.empty()) status["in_storage"] = NumbersToJson(summary.inStorage);
  status["config"] = NumbersToJson(summary.config);
  status["state"] = NumbersToJson(summary.counters);
  return status;
}

bool IsUtf8(const Json::Value& value) {
  if (value.isString()) return IsUtf8(value.asString());
  for (auto member = value.begin(); member != value.end(); ++member) {
    if ((value.isObject() && !IsUtf8(member.name())) || !IsUtf8(*member)) return false;
  }
  return true;
}

std::string Written(const Json::Value& value) {
  static const Json::StreamWriterBuilder writer = [] {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["commentStyle"] = "None";
    return builder;
  }();
  return Json::writeString(writer, value);
}

std::string Rewritten(const std::string& text) {
  const auto isAscii = [](char character) { return static_cast<signed char>(character) >= 0; };
  if (std::all_of(text.begin(), text.end(), isAscii)) return text;
  Json::Value object;
  object["text"] = text;
  return TextOf(ParseObject(Written(object)), "text");
}

Numbers Rewritten(const Numbers& numbers) {
  Numbers rewritten;
  for (const auto& [name, number] : numbers) rewritten[Rewritten(name)] = {number.value, RewrittenOdd(number.odd)};
  return rewritten;
}

LogContent Rewritten(const LogContent& content) {
  LogContent rewritten;
  if (content.config) rewritten.config = Rewritten(*content.config);
  if (content.counters) rewritten.counters = Rewritten(*content.counters);
  for (const auto& [key, record] : content.records) {
    rewritten.records[Rewritten(key)] = record ? std::optional(RewrittenRecord(*record)) : std::nullopt;
  }
  return rewritten;
}

LogFinding Rewritten(LogFinding finding) {
  for (auto& [index, record] : finding.records) record = RewrittenRecord(record);
  return finding;
}

LogSummary Rewritten(const LogSummary& summary) {
  return {Rewritten(summary.inStorage), Rewritten(summary.config), Rewritten(summary.counters)};
}

std::string Describe(const LogContent& content) {
  std::string text = "config" + (content.config ? Describe(*content.config) : " none\n") + "state" +
                     (content.counters ? Describe(*content.counters) : " none\n");
  for (const auto& [key, record] : content.records) text += key + ": " + (record ? Describe(*record) : "no object\n");
  return text;
}

std::string Describe(const LogFinding& finding) {
  std::string text = "last index " + std::to_string(finding.lastIndex) + "\n";
  for (const auto& [index, record] : finding.records) text += std::to_string(index) + ": " + Describe(record);
  return text;
}

std::string Describe(const LogSummary& summary) {
  return "in_storage" + Describe(summary.inStorage) + "config" + Describe(summary.config) + "state" +
         Describe(summary.counters);
}

}  // namespace zav::test
