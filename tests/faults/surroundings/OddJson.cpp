#include "OddJson.h"

#include <stdexcept>

#include "support/StoredState.h"

namespace zav::test {
namespace {

using namespace std::string_literals;

/// Stands in a document's text for what no JSON value can hold.
const std::string kPlace = "@ here @";

std::string Repeated(const std::string& piece, int times) {
  std::string text;
  text.reserve(piece.size() * static_cast<size_t>(times));
  for (int i = 0; i < times; ++i) text += piece;
  return text;
}

std::string NestedArray(int depth) {
  return Repeated("[", depth) + Repeated("]", depth);
}

std::string NestedObject(int depth) {
  return Repeated(R"({"a":)", depth) + "1" + Repeated("}", depth);
}

/// Other types and other numbers, which stand for themselves in their names.
const std::vector<std::string> kShort{
    "null", "true", "false", "0", "-0", "-1", "1", "2", "9", "10", "11", "1999", "2000", "2001", "2147483646",
    "2147483647", "2147483648", "-2147483647", "-2147483648", "-2147483649", "4294967295", "4294967296",
    "9223372036854775807", "9223372036854775808", "-9223372036854775808", "-9223372036854775809",
    "18446744073709551615", "18446744073709551616", "1.5", "-1.5", "10.0", "1e3", "2147483647.0", "1e300", "1e400",
    "1e-400", R"("")", R"("10")", R"("text")", R"("enabled")", R"("disabled")", R"("Enabled")", R"("\u0000")",
    R"("enabled\u0000")", R"("\ud800")", R"("\ud83d\ude00")", "[]", "[1]", "{}", R"({"a":1})", R"({"":{"":""}})",
    // No JSON, or not quite.
    "", "@", "nul", "NaN", "Infinity", "-", "01", "+1", "0x10", "1,2", "/* 1 */", "1 // 1", "'text'", R"("text)",
    R"("\x")", R"("\u12")", "[1", "{\"a\"", "{1:1}", "}", "]"};

std::vector<OddText> OddValues() {
  std::vector<OddText> values;
  for (const std::string& text : kShort) values.push_back({text, text});
  values.push_back({"a long string", "\"" + std::string(1 << 20, 'x') + "\""});
  values.push_back({"a long number", std::string(400, '9')});
  values.push_back({"no UTF-8", "\"\xff\xfe\xc3\""});
  values.push_back({"overlong UTF-8", "\"\xc0\x80\xe0\x80\x80\xf8\x88\x80\x80\x80\""});
  values.push_back({"UTF-8 cut off", "\"\xe2\x82\""});
  values.push_back({"a NUL in a string", "\"a\0b\""s});
  values.push_back({"a NUL alone", "\0"s});
  values.push_back({"control characters", "\"\x01\x02\n\t\x7f\""});
  for (const int depth : {900, 997, 998, 999, 100'000}) {
    values.push_back({"arrays nested " + std::to_string(depth), NestedArray(depth)});
    values.push_back({"objects nested " + std::to_string(depth), NestedObject(depth)});
  }
  return values;
}

Json::Value& MemberAt(Json::Value& document, const JsonPath& path) {
  Json::Value* member = &document;
  for (const std::string& key : path) member = &(*member)[key];
  return *member;
}

std::string Replaced(std::string text, const std::string& what, const std::string& by) {
  const size_t at = text.find(what);
  if (at == std::string::npos) throw std::logic_error("no " + what + " in " + text);
  return text.replace(at, what.size(), by);
}

/// A document that lacks a member.
std::string Without(Json::Value document, const JsonPath& path) {
  const JsonPath parent(path.begin(), path.end() - 1);
  MemberAt(document, parent).removeMember(path.back());
  return Text(document);
}

}  // namespace

std::vector<OddText> WithOddMember(const Json::Value& good, const JsonPath& path) {
  Json::Value document = good;
  const std::string member = Text(MemberAt(document, path));
  MemberAt(document, path) = kPlace;
  const std::string frame = Text(document);
  const std::string place = "\"" + kPlace + "\"";

  std::vector<OddText> odd;
  for (const OddText& value : OddValues()) odd.push_back({value.name, Replaced(frame, place, value.text)});
  if (path.empty()) return odd;
  odd.push_back({"missing", Without(good, path)});
  const std::string name = "\"" + path.back() + "\":";
  odd.push_back({"there twice, the last one odd", Replaced(frame, name + place, name + member + "," + name + "-7")});
  odd.push_back({"there twice, the first one odd", Replaced(frame, name + place, name + "-7," + name + member)});
  return odd;
}

std::vector<OddText> WithOddName(const Json::Value& good, const std::string& member) {
  const std::vector<OddText> names{{"none", ""},
                                   {"a blank", " "},
                                   {"letters", "abc"},
                                   {"a negative number", "-1"},
                                   {"a very negative number", "-2147483648"},
                                   {"leading zeros", "007"},
                                   {"a sign", "+5"},
                                   {"a leading blank", " 7"},
                                   {"something behind it", "7abc"},
                                   {"a fraction", "7.5"},
                                   {"an exponent", "1e3"},
                                   {"hexadecimal", "0x10"},
                                   {"the bound", "2000"},
                                   {"past the bound", "2001"},
                                   {"the highest number", "2147483647"},
                                   {"past the highest number", "2147483648"},
                                   {"a long number", std::string(400, '9')},
                                   {"a NUL", "4\0x"s},
                                   {"a NUL alone", "\0"s},
                                   {"no UTF-8", "\xff\xfe"},
                                   {"that of the configuration", "config"},
                                   {"that of the counters", "state"}};
  Json::Value document = good;
  document[kPlace] = document[member];
  document.removeMember(member);
  const std::string frame = Text(document);
  std::vector<OddText> odd;
  for (const OddText& name : names) odd.push_back({name.name, Replaced(frame, kPlace, name.text)});
  return odd;
}

}  // namespace zav::test
