#pragma once

#include <json/value.h>

#include <string>
#include <vector>

namespace zav::policy {

class Policy;

/// A look at a policy, or at a member of one, that copies nothing. It is good until the policy changes or ends.
class PolicyView {
 public:
  /// A look at nothing reads as a null policy.
  PolicyView() = default;
  /// @param value  looked at if it is an object; anything else reads as a null policy. Not null.
  explicit PolicyView(const Json::Value* value);

  bool isNull() const { return object == nullptr; }

  /// The readers of `Policy`, below.
  std::string GetStringValue(const std::string& key) const;
  int GetIntValue(const std::string& key) const;
  PolicyView Member(const std::string& key) const;

  /// A policy of its own with the same content.
  Policy Copy() const;

 private:
  const Json::Value* find(const std::string& key) const;

  const Json::Value* object = nullptr;
};

/// The value in which all data is kept and exchanged: a JSON object, or null (no object at all).
///
/// Members are strings, 32-bit integers and further objects, in ascending order of their keys. A missing or mistyped
/// member reads as the neutral value, so a reader cannot tell it from a stored one. A null policy becomes an object
/// when a member is set. A value type: copies share nothing, each is used by one thread at a time.
class Policy {
 public:
  /// Null.
  Policy() = default;
  /// A copy of `value` if it is an object; null for any other type.
  explicit Policy(const Json::Value& value);

  /// Whether there is no object.
  bool isNull() const { return json.isNull(); }

  /// Becomes null.
  void Clear();
  /// Removes a member if it is there.
  void DeleteValue(const std::string& key);

  /// Sets a member to a string, over what it was.
  void SetStringValue(const std::string& key, const std::string& value);
  /// @return the member's text; empty when it is missing or no string. A number is not turned into text.
  std::string GetStringValue(const std::string& key) const;

  /// Sets a member to an integer, over what it was.
  void SetIntValue(const std::string& key, int value);
  /// @return the member's value; 0 when it is missing, not integral, or does not fit an `int`.
  int GetIntValue(const std::string& key) const;

  /// Sets a member to a copy of an object. With a null `sub` nothing happens: the member stays as it is.
  void SetSubPolicy(const std::string& key, const Policy& sub);
  /// The same without the copy.
  void SetSubPolicy(const std::string& key, Policy&& sub);
  /// @return a copy of a member that is an object; null for any other.
  Policy GetSubPolicy(const std::string& key) const;

  /// A look at the whole.
  PolicyView View() const { return PolicyView(&json); }
  /// A look at a member; null when it is missing or no object.
  PolicyView Member(const std::string& key) const;

  /// How many members there are.
  unsigned MemberCount() const { return json.size(); }
  /// @return the keys, ascending; none for a null policy.
  std::vector<std::string> MemberNames() const;
  /// Calls `visit(const std::string& key, const PolicyView& member)` for each member, keys ascending. The policy must
  /// not change meanwhile.
  template <class Visit>
  void ForEachMember(Visit visit) const {
    for (auto member = json.begin(); member != json.end(); ++member) {
      char const* end = nullptr;
      char const* begin = member.memberName(&end);
      visit(std::string(begin, end), PolicyView(&*member));
    }
  }

  /// @return compact JSON text on one line, ended by a newline that is a part of it; empty for a null policy.
  std::string AsString() const;
  /// @return a member of any type as it stands in that text; empty when it is missing.
  std::string MemberAsString(const std::string& key) const;

 private:
  /// Null or an object, never anything else.
  Json::Value json;
};

/// @return a key as it stands in the text of a policy, in quotes.
std::string KeyAsString(const std::string& key);

/// Makes a policy of JSON text.
///
/// @param text  may be anything. Empty text and text whose top level is no object give a null policy silently; text
///              that is no JSON, or is cut off, gives a null policy and an error in the log.
/// Never throws for what the text holds; std::bad_alloc where memory is short. Any thread.
Policy ParseJsonString(const std::string& text);

}  // namespace zav::policy
