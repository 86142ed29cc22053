#pragma once

#include <json/value.h>

#include <optional>
#include <string>
#include <vector>

#include "doctor/Finding.h"

namespace zav::pyxctl::doctor {

/// The text of the JSON Schema that is installed: the one place where the rules stand.
const char* PolicySchema();

/// A rule that a policy breaks.
struct Breach {
  /// The member, such as "PYXPlugin.State.pyx_state"; the policy's own name for itself, or "the file".
  std::string where;
  /// What is wrong, such as "is 5, and should be a whole number from 30 to 3600".
  std::string what;
  /// What the schema says of that member: its meaning, and what becomes of a bad value.
  std::string meaning;
};

/// What breaks the rules in a default policy file.
std::vector<Breach> BreachesInFile(const Json::Value& file);

/// What breaks the rules in a policy of the database.
/// @param name  "Service", "State" or "Storage".
std::vector<Breach> BreachesInStored(const std::string& name, const Json::Value& policy);

/// A text as the plug-in reads it: comments and names that stand twice are nothing to it.
/// @param error  why there is no value, on one line.
std::optional<Json::Value> ReadJson(const std::string& text, std::string& error);

/// What the plug-in passes over in a text that `ReadJson` takes, but not everybody does: names that stand twice, text
/// behind the value, comments, trailing commas.
Findings LaxJson(const std::string& text);

}  // namespace zav::pyxctl::doctor
