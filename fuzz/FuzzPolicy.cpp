// The text of a policy: any text is parsed without an exception, what is written parses back equal, and every lookup
// gives what stands in the text or the neutral value.
//
// Input: the text.

#include <algorithm>
#include <string>

#include "Check.h"
#include "Input.h"
#include "Target.h"
#include "policy/Policy.h"
#include "support/LogText.h"

namespace zav::fuzz {
namespace {

using policy::ParseJsonString;
using policy::Policy;
using policy::PolicyView;
using test::IntOf;
using test::IsUtf8;
using test::ObjectOf;
using test::ParseObject;
using test::TextOf;

/// What is known of a member, by the library alone, against every reader of it.
template <class Reader>
void CheckMember(const Reader& reader, const Json::Value& object, const std::string& key) {
  CheckEqual(reader.GetIntValue(key), IntOf(object, key), "an integer reads as it stands in the text");
  CheckEqual(reader.GetStringValue(key), TextOf(object, key), "a text reads as it stands in the text");
  Check(reader.Member(key).isNull() == ObjectOf(object, key).isNull(), "a member is an object or null");
}

void CheckMembers(const PolicyView& view, const Json::Value& object) {
  Check(view.isNull() == object.isNull(), "a view is one of nothing where the text holds no object");
  for (auto member = object.begin(); member != object.end(); ++member) {
    CheckMember(view, object, member.name());
    if (member->isObject()) CheckMembers(view.Member(member.name()), *member);
  }
}

void CheckPolicy(const Policy& policy, const Json::Value& object) {
  Check(policy.isNull() == object.isNull(), "a policy is null where the text holds no object");
  Check(policy.MemberNames() == object.getMemberNames(), "a policy has the names of the text's members");
  unsigned count = 0;
  policy.ForEachMember([&](const std::string& key, const PolicyView& member) {
    ++count;
    CheckMember(policy, object, key);
    const Json::Value& expected = ObjectOf(object, key);
    Check(member.isNull() == expected.isNull(), "a visit sees objects as objects");
    Check(policy.GetSubPolicy(key).MemberCount() == expected.size(), "a sub-policy has the member's members");
  });
  Check(count == object.size() && count == policy.MemberCount(), "a visit sees each member once");
}

/// Texts as keys that need not be there.
void CheckStrangeKeys(const Policy& policy, const Json::Value& object, const std::string& text) {
  for (const auto& key : {std::string(), text.substr(0, 16), text.substr(std::min<std::size_t>(text.size(), 2), 3)}) {
    CheckMember(policy, object, key);
  }
}

void CheckWriting(const Policy& policy, const Json::Value& object) {
  const std::string written = policy.AsString();
  Check(written.empty() == policy.isNull(), "a policy is written as text unless it is null");
  if (written.empty()) return;
  Check(written.find('\n') == written.size() - 1, "a policy is written on one line, ended by a newline");
  const Json::Value parsed = ParseObject(written);
  const std::string again = ParseJsonString(written).AsString();
  Check(ParseObject(again) == parsed, "what was written and parsed is written the same");
  if (IsUtf8(object)) {
    Check(parsed == object, "what is written parses back equal");
    CheckEqual(again, written, "what is parsed back is written the same, byte for byte");
  }
}

void CheckDeleting(Policy policy) {
  unsigned left = policy.MemberCount();
  for (const auto& name : policy.MemberNames()) {
    policy.DeleteValue(name);
    Check(policy.MemberCount() == --left, "a member that is deleted goes, and no other");
  }
}

/// Changes, and what they leave.
void CheckChanges(Policy policy, const std::string& text) {
  const std::string key = text.substr(0, 5);
  const Policy before = policy;
  policy.SetStringValue(key, text);
  CheckEqual(policy.GetStringValue(key), text, "a text that was set is read");
  policy.SetIntValue(key, static_cast<int>(text.size()));
  CheckEqual(policy.GetIntValue(key), static_cast<int>(text.size()), "an integer that was set is read");
  policy.SetSubPolicy(key, Policy());
  CheckEqual(policy.GetIntValue(key), static_cast<int>(text.size()), "a null policy changes no member");
  policy.SetSubPolicy(key, before);
  CheckEqual(policy.GetSubPolicy(key).AsString(), before.isNull() ? "" : before.AsString(), "a policy that was set");
  policy.DeleteValue(key);
  Check(policy.Member(key).isNull() && policy.GetIntValue(key) == 0, "a member that was deleted is gone");
  policy.Clear();
  Check(policy.isNull() && policy.AsString().empty(), "a policy that was cleared is null");
}

void Run(const std::string& text) {
  const Policy policy = ParseJsonString(text);
  const Json::Value object = ParseObject(text);
  CheckPolicy(policy, object);
  CheckMembers(policy.View(), object);
  CheckStrangeKeys(policy, object, text);
  CheckWriting(policy, object);
  CheckDeleting(policy);
  CheckChanges(policy, text);
}

}  // namespace
}  // namespace zav::fuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zav::fuzz::Run(zav::fuzz::Input(data, size).Rest());
  return 0;
}
