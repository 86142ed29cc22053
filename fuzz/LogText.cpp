#include "LogText.h"

#include <json/reader.h>
#include <json/writer.h>

#include <algorithm>
#include <memory>
#include <utility>

namespace zav::fuzz {
namespace {

const Json::Value* Find(const Json::Value& object, const std::string& key) {
  return object.isObject() ? object.find(key.data(), key.data() + key.size()) : nullptr;
}

Numbers ReadNumbers(const Json::Value& object) {
  Numbers numbers;
  for (auto member = object.begin(); member != object.end(); ++member) {
    if (member->isInt()) numbers[member.name()] = member->asInt();
  }
  return numbers;
}

std::optional<Numbers> ReadObject(const Json::Value& value) {
  return value.isObject() ? std::optional(ReadNumbers(value)) : std::nullopt;
}

std::optional<LogRecord> ReadRecord(const Json::Value& value) {
  if (!value.isObject()) return std::nullopt;
  return LogRecord{TextOf(value, "url"), TextOf(value, "threat"), IntOf(value, "timestamp")};
}

LogRecord Rewritten(const LogRecord& record) {
  return {fuzz::Rewritten(record.url), fuzz::Rewritten(record.threat), record.timestamp};
}

std::string Describe(const Numbers& numbers) {
  std::string text;
  for (const auto& [name, number] : numbers) text += " [" + name + "] " + std::to_string(number);
  return text + "\n";
}

std::string Describe(const LogRecord& record) {
  return "[" + record.url + "] [" + record.threat + "] " + std::to_string(record.timestamp) + "\n";
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
  static const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  Json::Value value;
  std::string errors;
  try {
    if (!reader->parse(text.data(), text.data() + text.size(), &value, &errors)) return {};
  } catch (const Json::Exception&) {
    // Nested too deep.
    return {};
  }
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
  for (const auto& [name, number] : numbers) rewritten[Rewritten(name)] = number;
  return rewritten;
}

LogContent Rewritten(const LogContent& content) {
  LogContent rewritten;
  if (content.config) rewritten.config = Rewritten(*content.config);
  if (content.counters) rewritten.counters = Rewritten(*content.counters);
  for (const auto& [key, record] : content.records) {
    rewritten.records[Rewritten(key)] = record ? std::optional(Rewritten(*record)) : std::nullopt;
  }
  return rewritten;
}

LogFinding Rewritten(LogFinding finding) {
  for (auto& [index, record] : finding.records) record = Rewritten(record);
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

}  // namespace zav::fuzz
