#include "policy/Policy.h"

#include <gmock/gmock.h>
#include <json/reader.h>
#include <json/writer.h>

#include <climits>
#include <memory>
#include <sstream>
#include <type_traits>

#include "support/LogRecorder.h"
#include "support/Surroundings.h"

namespace zav::test {
namespace {

using policy::ParseJsonString;
using policy::Policy;
using policy::PolicyView;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

auto ParseLine(const testing::Matcher<std::string>& message) {
  return PluginLine(kError, "Policy.cpp", "ParseJsonString", message);
}

/// What the library itself says about a text that it cannot parse.
std::string ParserMessage(const std::string& text) {
  Json::Value value;
  std::string errors;
  std::istringstream stream(text);
  EXPECT_FALSE(Json::parseFromStream(Json::CharReaderBuilder(), stream, &value, &errors)) << text;
  return errors;
}

/// A policy that holds a member of every type under a key that says which.
Policy OfEveryType() {
  return ParseJsonString(R"({"array":[5],"false":false,"fraction":5.5,"int":5,"null":null,"object":{"x":5},)"
                         R"("string":"5","true":true,"whole":5.0})");
}

std::string Nested(const std::string& opening, size_t depth) {
  std::string text;
  for (size_t i = 0; i < depth; ++i) text += opening;
  return text;
}

// ---- what it can be

TEST(APolicy, IsNullWhenNothingWasPutIn) {
  const Policy policy;
  EXPECT_TRUE(policy.isNull());
  EXPECT_EQ(policy.AsString(), "");
}

TEST(APolicy, OfAStringOrAnArrayIsNullAndItsTextIsEmpty) {
  Json::Value array(Json::arrayValue);
  array.append(1);
  for (const Json::Value& value : {Json::Value("text"), array}) {
    const Policy policy(value);
    EXPECT_TRUE(policy.isNull()) << value;
    EXPECT_EQ(policy.AsString(), "") << value;
  }
}

TEST(APolicy, OfANumberABooleanOrNothingIsNull) {
  for (const Json::Value& value :
       {Json::Value(), Json::Value(5), Json::Value(5U), Json::Value(5.5), Json::Value(true), Json::Value("{}")}) {
    EXPECT_TRUE(Policy(value).isNull()) << value;
  }
}

TEST(APolicy, OfAnObjectIsACopyOfIt) {
  Json::Value object;
  object["a"] = 1;
  const Policy policy(object);
  object["a"] = 2;
  EXPECT_EQ(policy.AsString(), "{\"a\":1}\n");
}

TEST(APolicy, OfAnEmptyObjectIsNotNull) {
  const Policy policy{Json::Value(Json::objectValue)};
  EXPECT_FALSE(policy.isNull());
  EXPECT_EQ(policy.AsString(), "{}\n");
}

TEST(APolicy, SharesNothingWithItsCopies) {
  Policy policy = OfEveryType();
  Policy copy = policy;
  Policy assigned;
  assigned = policy;
  policy.SetIntValue("int", 6);
  copy.DeleteValue("int");
  EXPECT_EQ(policy.GetIntValue("int"), 6);
  EXPECT_EQ(copy.GetIntValue("int"), 0);
  EXPECT_EQ(assigned.GetIntValue("int"), 5);
}

TEST(APolicy, HasNoVirtualOperations) {
  EXPECT_FALSE(std::is_polymorphic_v<Policy>);
}

// ---- its text

TEST(TheTextOfAPolicy, WithOneMemberIsCompactEndsInANewlineAndParsesBackToAnEqualPolicy) {
  Policy policy;
  policy.SetIntValue("a", 1);
  const std::string text = policy.AsString();
  EXPECT_EQ(text, "{\"a\":1}\n");
  const Policy again = ParseJsonString(text);
  EXPECT_EQ(again.GetIntValue("a"), 1);
  EXPECT_EQ(again.AsString(), text);
}

TEST(TheTextOfAPolicy, HasItsMembersInTheOrderOfTheirKeysWithoutBlanks) {
  Policy sub;
  sub.SetIntValue("x", INT_MIN);
  Policy policy;
  policy.SetStringValue("b", "text with blanks");
  policy.SetSubPolicy("c", sub);
  policy.SetIntValue("a", INT_MAX);
  EXPECT_EQ(policy.AsString(), "{\"a\":2147483647,\"b\":\"text with blanks\",\"c\":{\"x\":-2147483648}}\n");
}

TEST(TheTextOfAPolicy, KeepsOddCharactersThroughWritingAndParsing) {
  using namespace std::string_literals;
  Policy policy;
  policy.SetStringValue("a", "\"\\/\b\f\n\r\t\x01\0 \u00e4 \U0001f600"s);
  const std::string text = policy.AsString();
  EXPECT_EQ(text.find('\n'), text.size() - 1);
  EXPECT_EQ(ParseJsonString(text).GetStringValue("a"), policy.GetStringValue("a"));
}

TEST(TheTextOfAPolicy, HasPlainNumbersUnderALocaleThatGroupsDigits) {
  const GroupingLocale locale;
  Policy policy;
  policy.SetIntValue("a", 1234567);
  EXPECT_EQ(policy.AsString(), "{\"a\":1234567}\n");
  EXPECT_EQ(ParseJsonString(policy.AsString()).GetIntValue("a"), 1234567);
}

// ---- its members

TEST(AnInteger, IsReadFromEveryIntegralNumberAndFromNothingElse) {
  const Policy policy = OfEveryType();
  for (const std::string key : {"int", "whole"}) EXPECT_EQ(policy.GetIntValue(key), 5) << key;
  for (const std::string key : {"array", "false", "fraction", "null", "object", "string", "true", "missing"}) {
    EXPECT_EQ(policy.GetIntValue(key), 0) << key;
  }
}

TEST(AnInteger, IsNotReadFromTheString5NorTheTextFromTheInteger5) {
  Policy policy;
  policy.SetStringValue("string", "5");
  policy.SetIntValue("int", 5);
  EXPECT_EQ(policy.GetIntValue("string"), 0);
  EXPECT_EQ(policy.GetStringValue("int"), "");
}

TEST(AnInteger, IsReadUpToTheEndsOfItsRange) {
  const Policy policy = ParseJsonString(R"({"min":-2147483648,"max":2147483647,"unsigned":7})");
  EXPECT_EQ(policy.GetIntValue("min"), INT_MIN);
  EXPECT_EQ(policy.GetIntValue("max"), INT_MAX);
  EXPECT_EQ(policy.GetIntValue("unsigned"), 7);
}

TEST(AnInteger, ThatDoesNotFitReadsAsZeroAndNeverThrows) {
  for (const std::string number : {"2147483648", "-2147483649", "4294967295", "9223372036854775807",
                                   "-9223372036854775808", "18446744073709551615", "2147483648.0", "1e18", "-1e300"}) {
    const Policy policy = ParseJsonString("{\"a\":" + number + "}");
    ASSERT_FALSE(policy.isNull()) << number;
    int value = -1;
    EXPECT_NO_THROW(value = policy.GetIntValue("a")) << number;
    EXPECT_EQ(value, 0) << number;
  }
}

TEST(AText, IsReadFromAStringAndFromNothingElse) {
  const Policy policy = OfEveryType();
  EXPECT_EQ(policy.GetStringValue("string"), "5");
  for (const std::string key : {"array", "false", "fraction", "int", "null", "object", "true", "whole", "missing"}) {
    EXPECT_EQ(policy.GetStringValue(key), "") << key;
  }
}

TEST(AText, KeepsTheZerosInsideIt) {
  using namespace std::string_literals;
  Policy policy;
  policy.SetStringValue("k\0y"s, "a\0b"s);
  EXPECT_EQ(policy.GetStringValue("k\0y"s), "a\0b"s);
  EXPECT_EQ(policy.GetStringValue("k"), "");
  EXPECT_THAT(policy.MemberNames(), ElementsAre("k\0y"s));
}

TEST(AMember, IsNotCreatedByReadingIt) {
  Policy empty;
  Policy policy = OfEveryType();
  const std::string before = policy.AsString();
  for (Policy* each : {&empty, &policy}) {
    each->GetIntValue("missing");
    each->GetStringValue("missing");
    each->GetSubPolicy("missing");
    each->Member("missing").GetIntValue("deeper");
  }
  EXPECT_TRUE(empty.isNull());
  EXPECT_EQ(policy.AsString(), before);
}

TEST(AMember, IsOverwrittenWhateverTypeItHadBefore) {
  for (const std::string& key : OfEveryType().MemberNames()) {
    Policy policy = OfEveryType();
    policy.SetIntValue(key, 77);
    EXPECT_EQ(policy.GetIntValue(key), 77) << key;
    policy = OfEveryType();
    policy.SetStringValue(key, "new");
    EXPECT_EQ(policy.GetStringValue(key), "new") << key;
    policy = OfEveryType();
    policy.SetSubPolicy(key, ParseJsonString("{\"new\":1}"));
    EXPECT_EQ(policy.GetSubPolicy(key).AsString(), "{\"new\":1}\n") << key;
  }
}

TEST(AMember, SetInANullPolicyMakesItAnObject) {
  Policy withInt;
  withInt.SetIntValue("a", 0);
  EXPECT_EQ(withInt.AsString(), "{\"a\":0}\n");
  Policy withString;
  withString.SetStringValue("a", "");
  EXPECT_EQ(withString.AsString(), "{\"a\":\"\"}\n");
  Policy withSub;
  withSub.SetSubPolicy("a", Policy(Json::Value(Json::objectValue)));
  EXPECT_EQ(withSub.AsString(), "{\"a\":{}}\n");
}

TEST(ASubPolicy, ThatIsNullLeavesAnExistingMemberItsValueAndAMissingOneMissing) {
  Policy cleared = ParseJsonString("{\"x\":1}");
  cleared.Clear();
  for (const Policy& null : {Policy(), cleared}) {
    Policy policy = ParseJsonString("{\"a\":1}");
    policy.SetSubPolicy("a", null);
    policy.SetSubPolicy("b", null);
    policy.SetSubPolicy("c", Policy());
    EXPECT_EQ(policy.AsString(), "{\"a\":1}\n");
  }
}

TEST(ASubPolicy, ThatIsNullLeavesANullPolicyNull) {
  Policy policy;
  policy.SetSubPolicy("a", Policy());
  EXPECT_TRUE(policy.isNull());
}

TEST(ASubPolicy, IsStoredAsACopyOrMovedIn) {
  Policy sub = ParseJsonString("{\"x\":1}");
  Policy policy;
  policy.SetSubPolicy("copied", sub);
  sub.SetIntValue("x", 2);
  policy.SetSubPolicy("moved", std::move(sub));
  EXPECT_EQ(policy.AsString(), "{\"copied\":{\"x\":1},\"moved\":{\"x\":2}}\n");
}

TEST(ASubPolicy, IsReadFromAnObjectAndFromNothingElse) {
  const Policy policy = OfEveryType();
  EXPECT_EQ(policy.GetSubPolicy("object").AsString(), "{\"x\":5}\n");
  for (const std::string key : {"array", "false", "fraction", "int", "null", "string", "true", "whole", "missing"}) {
    EXPECT_TRUE(policy.GetSubPolicy(key).isNull()) << key;
    EXPECT_TRUE(policy.Member(key).isNull()) << key;
    EXPECT_EQ(policy.Member(key).Member("x").GetIntValue("y"), 0) << key;
  }
}

TEST(ALookAtAMember, ReadsLikeThePolicyItself) {
  const Policy policy = ParseJsonString(R"({"a":{"int":1,"sub":{"b":2},"text":"t"}})");
  const PolicyView view = policy.Member("a");
  EXPECT_FALSE(view.isNull());
  EXPECT_EQ(view.GetIntValue("int"), 1);
  EXPECT_EQ(view.GetStringValue("text"), "t");
  EXPECT_EQ(view.Member("sub").GetIntValue("b"), 2);
  EXPECT_EQ(view.Copy().AsString(), policy.GetSubPolicy("a").AsString());
  EXPECT_EQ(policy.View().Member("a").GetIntValue("int"), 1);
}

TEST(ALookAtNothing, ReadsAsANullPolicy) {
  const PolicyView view;
  EXPECT_TRUE(view.isNull());
  EXPECT_EQ(view.GetIntValue("a"), 0);
  EXPECT_EQ(view.GetStringValue("a"), "");
  EXPECT_TRUE(view.Member("a").isNull());
  EXPECT_TRUE(view.Copy().isNull());
  EXPECT_TRUE(Policy().View().isNull());
}

TEST(AClearedPolicy, HasEmptyTextAndBecomesAnObjectWithTheOneMemberThatIsSet) {
  Policy policy = OfEveryType();
  policy.Clear();
  EXPECT_TRUE(policy.isNull());
  EXPECT_EQ(policy.AsString(), "");
  policy.SetIntValue("a", 1);
  EXPECT_EQ(policy.AsString(), "{\"a\":1}\n");
}

TEST(DeletingAMember, RemovesItAndNoOther) {
  Policy policy = ParseJsonString(R"({"a":1,"b":{"a":2}})");
  policy.DeleteValue("a");
  EXPECT_EQ(policy.AsString(), "{\"b\":{\"a\":2}}\n");
}

TEST(DeletingAMember, WithAZeroInItsKeyRemovesThatOne) {
  Policy policy;
  policy.SetIntValue("a", 1);
  policy.SetIntValue(std::string("a\0b", 3), 2);
  policy.DeleteValue(std::string("a\0b", 3));
  EXPECT_EQ(policy.AsString(), "{\"a\":1}\n");
}

TEST(DeletingAMember, ThatIsMissingOrOfANullPolicyChangesNothing) {
  Policy policy = OfEveryType();
  const std::string before = policy.AsString();
  policy.DeleteValue("missing");
  EXPECT_EQ(policy.AsString(), before);
  Policy null;
  null.DeleteValue("a");
  EXPECT_TRUE(null.isNull());
}

TEST(DeletingAMember, TheLastOneLeavesAnEmptyObject) {
  Policy policy = ParseJsonString("{\"a\":1}");
  policy.DeleteValue("a");
  EXPECT_EQ(policy.AsString(), "{}\n");
}

TEST(TheMemberNames, AreTheKeysInAscendingOrderOfTheirText) {
  const Policy policy = ParseJsonString(R"({"b":1,"10":1,"a":null,"9":{},"B":"","aa":[]})");
  EXPECT_THAT(policy.MemberNames(), ElementsAre("10", "9", "B", "a", "aa", "b"));
  EXPECT_EQ(policy.MemberCount(), 6u);
}

TEST(TheMemberNames, OfANullPolicyAreNone) {
  EXPECT_THAT(Policy().MemberNames(), IsEmpty());
  EXPECT_EQ(Policy().MemberCount(), 0u);
}

TEST(TheMemberNames, AreACopyThatOutlivesThePolicy) {
  auto policy = std::make_unique<Policy>(ParseJsonString("{\"a\":1}"));
  const auto names = policy->MemberNames();
  policy.reset();
  EXPECT_THAT(names, ElementsAre("a"));
}

TEST(VisitingTheMembers, CallsWithEachKeyAndALookAtItsValue) {
  std::vector<std::string> visited;
  const Policy policy = ParseJsonString(R"({"b":{"x":2},"a":1})");
  policy.ForEachMember([&](const std::string& key, const PolicyView& member) {
    visited.push_back(key + (member.isNull() ? "" : std::to_string(member.GetIntValue("x"))));
  });
  EXPECT_THAT(visited, ElementsAre("a", "b2"));
  Policy().ForEachMember([&](const std::string&, const PolicyView&) { visited.clear(); });
  EXPECT_EQ(visited.size(), 2u);
}

// ---- parsing

TEST(Parsing, TheEmptyTextLogsNothingAndGivesNull) {
  EXPECT_TRUE(ParseJsonString("").isNull());
  EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
}

TEST(Parsing, TheTextOfAnArrayLogsNothingAndGivesNull) {
  EXPECT_TRUE(ParseJsonString("[1]").isNull());
  EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
}

TEST(Parsing, AnOpeningBraceAloneLogsTheParsersMessageAndGivesNull) {
  EXPECT_TRUE(ParseJsonString("{").isNull());
  EXPECT_THAT(LogRecorder::Lines(), ElementsAre(ParseLine("Failed to parse: " + ParserMessage("{"))));
}

TEST(Parsing, ADocumentThatIsNoObjectLogsNothingAndGivesNull) {
  for (const std::string text : {"null", "5", "5.5", "true", "\"text\"", "[]", "[{\"a\":1}]"}) {
    EXPECT_TRUE(ParseJsonString(text).isNull()) << text;
    EXPECT_THAT(LogRecorder::Lines(), IsEmpty()) << text;
  }
}

TEST(Parsing, AnEmptyObjectGivesAnObject) {
  const Policy policy = ParseJsonString("{}");
  EXPECT_FALSE(policy.isNull());
  EXPECT_EQ(policy.AsString(), "{}\n");
}

TEST(Parsing, HasTheParsersOwnDefaultSettings) {
  EXPECT_EQ(ParseJsonString("/* comment */ {\"a\":1} rest").AsString(), "{\"a\":1}\n");
  EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
}

TEST(Parsing, ADocumentThatIsCutOffAnywhereGivesNothingOfWhatWasReadBefore) {
  const std::string whole = R"({"a":1,"config":{"b":"text"},"z":2})";
  for (size_t length = 1; length < whole.size(); ++length) {
    LogRecorder::Clear();
    const std::string text = whole.substr(0, length);
    EXPECT_TRUE(ParseJsonString(text).isNull()) << text;
    EXPECT_THAT(LogRecorder::Lines(), ElementsAre(ParseLine("Failed to parse: " + ParserMessage(text)))) << text;
  }
}

TEST(Parsing, TextThatIsNoJsonLogsTheParsersMessageAndGivesNull) {
  using namespace std::string_literals;
  for (const std::string& text :
       {"text"s, "{\"a\":1 \"b\":2}"s, "{a:1}"s, "{\"a\" 1}"s, "}"s, "\0"s, "\xff\xfe"s, " "s}) {
    LogRecorder::Clear();
    EXPECT_TRUE(ParseJsonString(text).isNull()) << text;
    EXPECT_THAT(LogRecorder::Lines(), ElementsAre(ParseLine("Failed to parse: " + ParserMessage(text)))) << text;
  }
}

TEST(Parsing, TextThatIsNestedTooDeepLogsOneLineGivesNullAndDoesNotThrow) {
  for (const std::string opening : {"[", "{\"a\":", "{\"a\":["}) {
    LogRecorder::Clear();
    Policy policy;
    EXPECT_NO_THROW(policy = ParseJsonString(Nested(opening, 100'000))) << opening;
    EXPECT_TRUE(policy.isNull()) << opening;
    EXPECT_THAT(LogRecorder::Lines(),
                ElementsAre(ParseLine(AllOf(StartsWith("Failed to parse: "), HasSubstr("stackLimit")))))
        << opening;
  }
}

TEST(Parsing, KeepsTheSmallDepthsThatAreInUse) {
  const std::string text = Nested("{\"a\":", 100) + "{}" + std::string(100, '}');
  EXPECT_EQ(ParseJsonString(text).AsString(), text + "\n");
  EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
}

TEST(ALookAtTheTextOfAMember, GivesWhatStandsInTheTextOfTheWhole) {
  const Policy policy = ParseJsonString(R"({"a":{"b":1},"c":[1, "x"],"d":null})");
  EXPECT_EQ(policy.MemberAsString("a"), R"({"b":1})");
  EXPECT_EQ(policy.MemberAsString("c"), R"([1,"x"])");
  EXPECT_EQ(policy.MemberAsString("d"), "null");
  EXPECT_EQ(policy.MemberAsString("e"), "");
  EXPECT_EQ(Policy().MemberAsString("a"), "");
}

}  // namespace
}  // namespace zav::test
