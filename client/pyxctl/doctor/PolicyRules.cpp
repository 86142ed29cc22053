#include "doctor/PolicyRules.h"

#include <json/reader.h>
#include <json/writer.h>
#include <rapidjson/document.h>
#include <rapidjson/schema.h>

#include <algorithm>
#include <array>
#include <memory>

namespace zav::pyxctl::doctor {
namespace {

using Path = std::vector<std::string>;

const Json::Value& SchemaDocument() {
  static const Json::Value document = [] {
    std::string error;
    return ReadJson(PolicySchema(), error).value();
  }();
  return document;
}

/// A rule, or the one that it refers to.
const Json::Value& Resolved(const Json::Value& rule) {
  constexpr std::string_view kPrefix = "#/definitions/";
  const Json::Value* each = &rule;
  while (each->isObject() && each->isMember("$ref")) {
    each = &SchemaDocument()["definitions"][(*each)["$ref"].asString().substr(kPrefix.size())];
  }
  return *each;
}

const Json::Value* MemberOf(const Json::Value& object, const std::string& name) {
  return object.isObject() ? object.find(name.data(), name.data() + name.size()) : nullptr;
}

/// The rule for a member of what another rule is for; null where there is none.
const Json::Value& RuleOf(const Json::Value& rule, const std::string& name) {
  const Json::Value* own = MemberOf(rule["properties"], name);
  const Json::Value& found = own != nullptr ? *own : rule["additionalProperties"];
  return found.isObject() ? Resolved(found) : Json::Value::nullSingleton();
}

std::string TextOf(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  builder["commentStyle"] = "None";
  return Json::writeString(builder, value);
}

/// "60.0" is a whole number to the plug-in and to JSON Schema, but not to RapidJSON.
Json::Value WithWholeNumbers(Json::Value value) {
  if (value.isDouble() && value.isInt64()) return value.asInt64();
  if (value.isObject() || value.isArray()) {
    for (Json::Value& each : value) each = WithWholeNumbers(each);
  }
  return value;
}

rapidjson::Document Converted(const Json::Value& value) {
  const std::string text = TextOf(WithWholeNumbers(value));
  rapidjson::Document document;
  document.Parse(text.data(), text.size());
  return document;
}

/// The verdict: whether a value keeps a rule of the schema.
bool Keeps(const Json::Value& rule, const Json::Value& value) {
  Json::Value whole = Resolved(rule);
  whole["definitions"] = SchemaDocument()["definitions"];
  const rapidjson::SchemaDocument schema(Converted(whole));
  rapidjson::SchemaValidator validator(schema);
  return Converted(value).Accept(validator);
}

std::string Compact(const Json::Value& value) {
  constexpr std::size_t kMost = 60;
  const std::string text = TextOf(value);
  return text.size() <= kMost ? text : text.substr(0, kMost) + "...";
}

/// Names or values as a person lists them.
std::string Listed(const std::vector<std::string>& words, const char* last) {
  std::string text;
  for (std::size_t at = 0; at < words.size(); ++at) {
    if (at > 0) text += at + 1 == words.size() ? last : ", ";
    text += words[at];
  }
  return text;
}

/// What a rule asks for, in words.
std::string Wanted(const Json::Value& rule) {
  if (rule.isMember("enum")) {
    std::vector<std::string> values;
    for (const Json::Value& each : rule["enum"]) values.push_back(Compact(each));
    return Listed(values, " or ");
  }
  if (rule["type"] == "integer") {
    return "a whole number from " + Compact(rule["minimum"]) + " to " + Compact(rule["maximum"]);
  }
  if (rule["type"] == "string") return rule.isMember("minLength") ? "a text that is not empty" : "a text";
  return "an object";
}

std::vector<std::string> MissingNames(const Json::Value& rule, const Json::Value& object) {
  std::vector<std::string> names;
  for (const Json::Value& each : rule["required"]) {
    if (MemberOf(object, each.asString()) == nullptr) names.push_back(each.asString());
  }
  return names;
}

std::vector<std::string> UnknownNames(const Json::Value& rule, const Json::Value& object) {
  std::vector<std::string> names;
  if (rule["additionalProperties"] != false) return names;
  for (const std::string& each : object.getMemberNames()) {
    if (MemberOf(rule["properties"], each) == nullptr) names.push_back(each);
  }
  return names;
}

/// Judges one policy document by the schema, or a definition of it.
class Judgement {
 public:
  Judgement(const Json::Value& policy, const Json::Value& rules, const std::string& itsName)
      : document(policy), root(rules), name(itsName) {}

  std::vector<Breach> Breaches() {
    if (Keeps(root, document)) return {};
    Describe({}, Resolved(root), document);
    // Whatever else the schema may come to ask for.
    if (breaches.empty()) breaches.push_back({name, "breaks a rule of the schema", ""});
    return breaches;
  }

 private:
  /// Goes down to what breaks a rule: the names of an object, or a value.
  void Describe(const Path& place, const Json::Value& rule, const Json::Value& value) {
    if (rule["type"] != "object" || !value.isObject()) {
      if (Keeps(rule, value)) return;
      Add(place, "is " + Compact(value) + ", and should be " + Wanted(rule), rule["description"].asString());
      return;
    }
    DescribeNames(place, rule, value);
    for (const std::string& each : value.getMemberNames()) {
      const Json::Value& inner = RuleOf(rule, each);
      if (inner.isObject()) Describe(Below(place, each), inner, *MemberOf(value, each));
    }
  }

  void DescribeNames(const Path& place, const Json::Value& rule, const Json::Value& object) {
    const std::string known =
        "is not known; the names here are " + Listed(rule["properties"].getMemberNames(), " and ");
    for (const std::string& each : UnknownNames(rule, object)) {
      Add(Below(place, each), known,
          "correct or remove it: the plug-in passes over it, or removes it, and what was meant has its default");
    }
    for (const std::string& each : MissingNames(rule, object)) {
      Add(Below(place, each), "is missing", rule["description"].asString());
    }
  }

  static Path Below(Path place, const std::string& name) {
    place.push_back(name);
    return place;
  }

  void Add(const Path& place, const std::string& what, const std::string& meaning) {
    std::string where;
    for (const std::string& each : place) where += (where.empty() ? "" : ".") + (each.empty() ? "\"\"" : each);
    breaches.push_back({place.empty() ? name : where, what, meaning});
  }

  const Json::Value& document;
  const Json::Value& root;
  std::string name;
  std::vector<Breach> breaches;
};

/// What no schema can say.
void CompareLimits(const Json::Value& storage, const std::string& where, std::vector<Breach>& breaches) {
  if (!storage.isObject() || !storage["config"].isObject()) return;
  const Json::Value& index = storage["config"]["max_index"];
  const Json::Value& size = storage["config"]["max_file_size"];
  if (!index.isInt() || !size.isInt() || size.asInt() <= index.asInt()) return;
  breaches.push_back({where + ".config.max_index",
                      "is " + Compact(index) + ", and should not be less than max_file_size, which is " + Compact(size),
                      SchemaDocument()["definitions"]["config"]["properties"]["max_index"]["description"].asString()});
}

/// The first of the parser's errors, which come in two lines each: "* where" and "  what".
std::string FirstOf(std::string errors) {
  if (errors.starts_with("* ")) errors.erase(0, 2);
  errors.erase(std::min(errors.find("\n* "), errors.size()));
  while (!errors.empty() && errors.back() == '\n') errors.pop_back();
  const auto end = errors.find("\n  ");
  if (end != std::string::npos) errors.replace(end, 3, ": ");
  return errors;
}

bool Parse(const Json::CharReaderBuilder& builder, const std::string& text, Json::Value& value, std::string& error) {
  try {
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    if (reader->parse(text.data(), text.data() + text.size(), &value, &error)) return true;
  } catch (const Json::Exception& exception) {
    error = exception.what();
  }
  error = FirstOf(error);
  return false;
}

/// Something that the plug-in passes over in a text.
struct Laxity {
  const char* setting;
  bool strict;
  Severity severity;
  const char* what;
  /// What the parser says of it says more than where it is.
  bool isExplained;
  const char* advice;
};

constexpr std::array kLaxities = {
    Laxity{"rejectDupKeys", true, Severity::kProblem, "a name stands twice", true,
           "keep one of them: the plug-in takes the last one, other programs another"},
    Laxity{"failIfExtra", true, Severity::kProblem, "something stands behind the end", false,
           "remove it: the plug-in passes over it"},
    Laxity{"allowTrailingCommas", false, Severity::kWarning, "a comma stands before a bracket", false,
           "remove it: the plug-in passes over it, but it is no JSON"},
};

template <unsigned kFlags>
bool IsRead(const std::string& text) {
  rapidjson::Document document;
  document.Parse<kFlags | rapidjson::kParseIterativeFlag>(text.data(), text.size());
  return !document.HasParseError();
}

/// Whether there are any, also behind the end, or before something else there. The plug-in's parser says so only where
/// they begin the text.
bool HoldsComments(const std::string& text) {
  constexpr unsigned kComments = rapidjson::kParseCommentsFlag;
  constexpr unsigned kCommas = rapidjson::kParseTrailingCommasFlag;
  constexpr unsigned kRootAlone = rapidjson::kParseStopWhenDoneFlag;
  return (IsRead<kCommas | kComments>(text) && !IsRead<kCommas>(text)) ||
         (IsRead<kCommas | kRootAlone | kComments>(text) && !IsRead<kCommas | kRootAlone>(text));
}

}  // namespace

std::optional<Json::Value> ReadJson(const std::string& text, std::string& error) {
  Json::Value value;
  if (Parse(Json::CharReaderBuilder(), text, value, error)) return value;
  return std::nullopt;
}

Findings LaxJson(const std::string& text) {
  Findings findings;
  for (const Laxity& each : kLaxities) {
    Json::CharReaderBuilder builder;
    builder[each.setting] = each.strict;
    // Without it the parser takes some of what stands behind the end for nothing.
    builder["strictRoot"] = true;
    Json::Value value;
    std::string error;
    if (Parse(builder, text, value, error)) continue;
    if (!each.isExplained) error.erase(std::min(error.find(':'), error.size()));
    findings.push_back({each.severity, "", std::string(each.what) + " (" + error + ")", each.advice});
  }
  if (HoldsComments(text)) {
    findings.push_back({Severity::kWarning, "", "it holds comments",
                        "remove them: the plug-in passes over them, but they are no JSON"});
  }
  return findings;
}

std::vector<Breach> BreachesInFile(const Json::Value& file) {
  std::vector<Breach> breaches = Judgement(file, SchemaDocument(), "the file").Breaches();
  if (file.isObject() && file["PYXPlugin"].isObject()) {
    CompareLimits(file["PYXPlugin"]["Storage"], "PYXPlugin.Storage", breaches);
  }
  return breaches;
}

std::vector<Breach> BreachesInStored(const std::string& name, const Json::Value& policy) {
  Json::Value rule;
  rule["$ref"] = "#/definitions/" + (name == "Storage" ? "Stored" + name : name);
  std::vector<Breach> breaches = Judgement(policy, rule, name).Breaches();
  if (name == "Storage") CompareLimits(policy, name, breaches);
  return breaches;
}

}  // namespace zav::pyxctl::doctor
