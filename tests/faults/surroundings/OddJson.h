#pragma once

#include <json/value.h>

#include <string>
#include <vector>

namespace zav::test {

/// The way to a member of a document, from the outside in; empty is the document itself.
using JsonPath = std::vector<std::string>;

/// A document with something odd in it.
struct OddText {
  /// What is odd.
  std::string name;
  std::string text;
};

/// A good document once for each odd thing that a member may be: missing, of another type, out of every range, nested
/// deep, there twice, and what is no JSON at all.
std::vector<OddText> WithOddMember(const Json::Value& good, const JsonPath& path);

/// A good document once for each odd name that a member may have.
std::vector<OddText> WithOddName(const Json::Value& good, const std::string& member);

}  // namespace zav::test
