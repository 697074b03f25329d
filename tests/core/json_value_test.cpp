#include "core/json_value.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace quorel {
namespace {

JSONValue readOrFail(std::string_view text) {
  auto r = JSONValue::read(text);
  EXPECT_TRUE(r.value.has_value()) << text << ": " << r.error;
  return r.value.value_or(JSONValue());
}

TEST(JSONValueTest, ARepeatedKeyKeepsItsLastValueInLiteralsAndInText) {
  EXPECT_EQ(JSONValue::object({{"k", 1}, {"other", true}, {"k", "last"}}),
            JSONValue::object({{"other", true}, {"k", "last"}}));
  EXPECT_EQ(readOrFail(R"({"a":1,"a":2})"), JSONValue::object({{"a", 2}}));
}

TEST(JSONValueTest, ReadingMapsEachJSONKindToOneCase) {
  EXPECT_TRUE(readOrFail("null").isNull());
  EXPECT_EQ(readOrFail("[1,\"a\",null]"), JSONValue::array({1, "a", nullptr}));
  EXPECT_EQ(readOrFail(R"({"a":{"b":[]}})"),
            JSONValue::object({{"a", JSONValue::object({{"b", JSONValue::array({})}})}}));
  // true is a bool and never a number; 1 and 1.0 are one number.
  EXPECT_NE(readOrFail("true"), JSONValue(1));
  EXPECT_EQ(readOrFail("1"), readOrFail("1.0"));
  EXPECT_EQ(readOrFail("-0.5e1"), JSONValue(-5));
  EXPECT_EQ(readOrFail("18446744073709551615"), JSONValue(18446744073709551615.0));
}

TEST(JSONValueTest, ReadingRefusesWhatIsNotOneJSONText) {
  for (std::string_view bad :
       {"", "tru", "{\"a\":}", "[1,]", "1 2", "'x'", "1e400", "{1:2}", "\"\xff\"", "[", "nan"}) {
    auto r = JSONValue::read(bad);
    EXPECT_FALSE(r.value.has_value()) << bad;
    EXPECT_FALSE(r.error.empty()) << bad;
  }
}

TEST(JSONValueTest, ReadingRefusesNestingPastTheLimitButAcceptsItAtTheLimit) {
  const int limit = JSONValue::kMaxReadDepth;
  EXPECT_TRUE(JSONValue::read(std::string(limit, '[') + std::string(limit, ']')).value);
  auto r = JSONValue::read(std::string(limit + 1, '[') + std::string(limit + 1, ']'));
  EXPECT_FALSE(r.value.has_value());
  EXPECT_NE(r.error.find("deeper"), std::string::npos);
  // A body of a million brackets must fail fast rather than exhaust the stack.
  EXPECT_FALSE(JSONValue::read(std::string(1'000'000, '[')).value.has_value());
}

TEST(JSONValueTest, ReadingFillsContainersThatKeepGrowingAroundFilledOnes) {
  // Each element is filled where it lies while the array around it later grows and moves it.
  std::string text = "{\"list\":[";
  JSONValue::Array expected;
  for (int i = 0; i < 1000; ++i) {
    if (i > 0) text += ',';
    text += R"({"n":[)" + std::to_string(i) + R"(,{"deep":[]}],"s":"element number )" +
            std::to_string(i) + "\"}";
    expected.push_back(JSONValue::object(
        {{"n", JSONValue::array({i, JSONValue::object({{"deep", JSONValue::array({})}})})},
         {"s", "element number " + std::to_string(i)}}));
  }
  text += "],\"after\":true}";
  EXPECT_EQ(readOrFail(text),
            JSONValue::object({{"list", JSONValue(std::move(expected))}, {"after", true}}));
}

TEST(JSONValueBuilderTest,
     AValueIsCompleteWhenItsOutermostContainerClosesAndTakesNoMoreWithinItsDepth) {
  JSONValueBuilder builder;
  ASSERT_TRUE(builder.startObject());
  EXPECT_FALSE(builder.null()) << "a member without a key";
  ASSERT_TRUE(builder.key("a"));
  ASSERT_TRUE(builder.startArray());
  EXPECT_FALSE(builder.key("in an array")) << "an array has no keys";
  ASSERT_TRUE(builder.numberUnsigned(18446744073709551615u));
  ASSERT_TRUE(builder.endContainer());
  EXPECT_FALSE(builder.complete());
  // The same key again replaces the array it held.
  ASSERT_TRUE(builder.key("a"));
  ASSERT_TRUE(builder.numberInteger(-3));
  ASSERT_TRUE(builder.key("b"));
  ASSERT_TRUE(builder.string("text"));
  ASSERT_TRUE(builder.endContainer());
  EXPECT_TRUE(builder.complete());
  EXPECT_FALSE(builder.null());
  EXPECT_FALSE(builder.startArray());
  EXPECT_FALSE(builder.endContainer());
  EXPECT_EQ(builder.take(), JSONValue::object({{"a", -3}, {"b", "text"}}));
}

TEST(JSONValueTest, MemberLookupNeverFails) {
  auto obj = JSONValue::object({{"a", 1}, {"n", nullptr}});
  EXPECT_EQ(obj.member("a"), JSONValue(1));
  // A member holding null is present; a missing key is absent.
  EXPECT_EQ(obj.member("n"), JSONValue(nullptr));
  EXPECT_FALSE(obj.member("zz").has_value());
  for (const JSONValue& notObject :
       {JSONValue::array({JSONValue::object({{"a", 1}})}), JSONValue("a"), JSONValue(nullptr),
        JSONValue(1), JSONValue(true)}) {
    EXPECT_FALSE(notObject.member("a").has_value());
    EXPECT_EQ(notObject.find("a"), nullptr);
  }
}

TEST(JSONValueTest, EqualityIsDeepAndCaseSensitive) {
  auto a = JSONValue::object({{"x", JSONValue::array({1, JSONValue::object({{"y", "z"}})})}});
  auto c = JSONValue::object({{"x", JSONValue::array({1, JSONValue::object({{"y", "Z"}})})}});
  EXPECT_NE(a, c);
  const double nan = std::numeric_limits<double>::quiet_NaN();
  EXPECT_NE(JSONValue(nan), JSONValue(nan));
}

TEST(JSONValueTest, WritingSpellsWholeNumbersWithoutAFractionAndRoundTrips) {
  const std::pair<JSONValue, std::string> cases[] = {
      {JSONValue(42.0), "42"},
      {JSONValue(-0.0), "0"},
      {JSONValue(9223372036854775808.0), "9223372036854775808"},
      {JSONValue(0.25), "0.25"},
      {JSONValue(std::string("a\xff")), "\"a\xEF\xBF\xBD\""},  // bad UTF-8 is replaced
  };
  for (const auto& [value, text] : cases) EXPECT_EQ(value.write(), text);
  // Slashes stay as they are; fractions survive the round trip exactly.
  auto v = JSONValue::object({{"path", "a/b"},
                              {"list", JSONValue::array({true, nullptr, "é", 1.0 / 3.0})},
                              {"empty", JSONValue::object({})}});
  auto text = v.write();
  ASSERT_TRUE(text);
  EXPECT_NE(text->find("a/b"), std::string::npos);
  EXPECT_EQ(JSONValue::read(*text).value, v);
  // A number that is not finite, anywhere in the value, cannot be written.
  EXPECT_FALSE(JSONValue(std::numeric_limits<double>::infinity()).write());
  EXPECT_FALSE(JSONValue::object({{"a", JSONValue::array({1, std::nan("")})}}).write());
}

}  // namespace
}  // namespace quorel
