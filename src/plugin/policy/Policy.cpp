#include "policy/Policy.h"

#include <json/reader.h>
#include <json/writer.h>

#include <memory>
#include <new>
#include <utility>

#include "common/Log.h"

namespace zav::policy {
namespace {

// The text stands in the databases and replies of devices: it stays byte for byte what this writer makes, and the
// writer that the library recommends instead makes another one.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
/// The text of a value, with a newline at its end.
std::string Line(const Json::Value& value) {
  return Json::FastWriter().write(value);
}
#pragma GCC diagnostic pop

std::string Part(const Json::Value& value) {
  std::string text = Line(value);
  text.pop_back();
  return text;
}

}  // namespace

PolicyView::PolicyView(const Json::Value* value) : object(value->isObject() ? value : nullptr) {}

const Json::Value* PolicyView::find(const std::string& key) const {
  return object != nullptr ? object->find(key.data(), key.data() + key.size()) : nullptr;
}

std::string PolicyView::GetStringValue(const std::string& key) const {
  const Json::Value* member = find(key);
  return member != nullptr && member->isString() ? member->asString() : std::string();
}

int PolicyView::GetIntValue(const std::string& key) const {
  const Json::Value* member = find(key);
  // isInt() asks for both, an integral value and the range of int; asInt() would throw for what lies outside.
  return member != nullptr && member->isInt() ? member->asInt() : 0;
}

PolicyView PolicyView::Member(const std::string& key) const {
  const Json::Value* member = find(key);
  return member != nullptr ? PolicyView(member) : PolicyView();
}

Policy PolicyView::Copy() const {
  return object != nullptr ? Policy(*object) : Policy();
}

Policy::Policy(const Json::Value& value) {
  if (value.isObject()) json = value;
}

void Policy::Clear() {
  json = Json::Value();
}

void Policy::DeleteValue(const std::string& key) {
  // By both its ends: by its text alone, a key would end at a zero inside it, and another member would go.
  if (!isNull()) json.removeMember(key.data(), key.data() + key.size(), nullptr);
}

void Policy::SetStringValue(const std::string& key, const std::string& value) {
  json[key] = value;
}

std::string Policy::GetStringValue(const std::string& key) const {
  return View().GetStringValue(key);
}

void Policy::SetIntValue(const std::string& key, int value) {
  json[key] = value;
}

int Policy::GetIntValue(const std::string& key) const {
  return View().GetIntValue(key);
}

void Policy::SetSubPolicy(const std::string& key, const Policy& sub) {
  if (!sub.isNull()) json[key] = sub.json;
}

void Policy::SetSubPolicy(const std::string& key, Policy&& sub) {
  if (!sub.isNull()) json[key] = std::move(sub.json);
}

Policy Policy::GetSubPolicy(const std::string& key) const {
  return Member(key).Copy();
}

PolicyView Policy::Member(const std::string& key) const {
  return View().Member(key);
}

std::vector<std::string> Policy::MemberNames() const {
  return json.getMemberNames();
}

std::string Policy::AsString() const {
  return isNull() ? std::string() : Line(json);
}

std::string Policy::MemberAsString(const std::string& key) const {
  const Json::Value* member = isNull() ? nullptr : json.find(key.data(), key.data() + key.size());
  return member != nullptr ? Part(*member) : std::string();
}

std::string KeyAsString(const std::string& key) {
  return Part(Json::Value(key));
}

Policy ParseJsonString(const std::string& text) {
  if (text.empty()) return {};
  Json::Value value;
  std::string errors;
  try {
    // Not from a stream: one that finds no memory cuts the text off in silence.
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    // A parser that fails leaves what it had read by then: none of it may be taken for a policy.
    if (reader->parse(text.data(), text.data() + text.size(), &value, &errors)) return Policy(value);
  } catch (const Json::Exception& exception) {
    // It throws where values are nested too deep, and, without a type for it, for want of memory. That says nothing
    // about the text and goes to the caller: what is stored must not be taken for damaged by it.
    errors = exception.what();
    if (errors.find("Failed to allocate") != std::string::npos) throw std::bad_alloc();
  }
  LOG_ERROR("Failed to parse: ", errors);
  return {};
}

}  // namespace zav::policy
