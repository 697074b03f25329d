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
  auto v = JSONValue::object({{"k", 1}, {"other", true}, {"k", "last"}});
  ASSERT_EQ(v.objectValue()->size(), 2u);
  EXPECT_EQ(v.member("k"), JSONValue("last"));
  EXPECT_EQ(readOrFail(R"({"a":1,"a":2})"), JSONValue::object({{"a", 2}}));
}

TEST(JSONValueTest, ReadingMapsEachJSONKindToOneCase) {
  EXPECT_TRUE(readOrFail("null").isNull());
  EXPECT_EQ(readOrFail("true"), JSONValue(true));
  EXPECT_EQ(readOrFail("false"), JSONValue(false));
  EXPECT_EQ(readOrFail("\"x\""), JSONValue("x"));
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
  std::string atLimit = std::string(limit, '[') + std::string(limit, ']');
  EXPECT_TRUE(JSONValue::read(atLimit).value.has_value());
  std::string past = std::string(limit + 1, '[') + std::string(limit + 1, ']');
  auto r = JSONValue::read(past);
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

TEST(JSONValueBuilderTest, AValueIsCompleteWhenItsOutermostContainerClosesAndTakesNoMore) {
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

  // Reused, it starts from nothing; a scalar is a whole value at once.
  builder.reset();
  EXPECT_FALSE(builder.complete());
  EXPECT_FALSE(builder.key("k")) << "a key outside any object";
  ASSERT_TRUE(builder.numberFloat(0.5));
  EXPECT_TRUE(builder.complete());
  EXPECT_EQ(builder.take(), JSONValue(0.5));
}

TEST(JSONValueBuilderTest, TheDepthLimitCountsTheContainersAroundTheValue) {
  const int limit = JSONValue::kMaxReadDepth;
  JSONValueBuilder builder(limit - 2);
  EXPECT_TRUE(builder.startArray());
  EXPECT_TRUE(builder.startArray());
  EXPECT_FALSE(builder.startArray());
  EXPECT_FALSE(builder.startObject());

  builder.reset(0);
  for (int i = 0; i < limit; ++i) ASSERT_TRUE(builder.startArray()) << i;
  EXPECT_FALSE(builder.startObject());
  for (int i = 0; i < limit; ++i) ASSERT_TRUE(builder.endContainer()) << i;
  ASSERT_TRUE(builder.complete());
  JSONValue expected = JSONValue::array({});
  for (int i = 1; i < limit; ++i) expected = JSONValue::array({expected});
  EXPECT_EQ(builder.take(), expected);
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
  auto b = JSONValue::object({{"x", JSONValue::array({1.0, JSONValue::object({{"y", "z"}})})}});
  auto c = JSONValue::object({{"x", JSONValue::array({1, JSONValue::object({{"y", "Z"}})})}});
  EXPECT_EQ(a, b);
  EXPECT_NE(a, c);
  EXPECT_EQ(JSONValue(1), JSONValue(1.0));
  EXPECT_EQ(JSONValue(std::uint64_t{7}), JSONValue(7));
  EXPECT_NE(JSONValue(nullptr), JSONValue(false));
  EXPECT_NE(JSONValue("1"), JSONValue(1));
  EXPECT_NE(JSONValue::array({}), JSONValue::object({}));
  const double nan = std::numeric_limits<double>::quiet_NaN();
  EXPECT_NE(JSONValue(nan), JSONValue(nan));
}

TEST(JSONValueTest, WholeNumbersAreWrittenWithoutAFraction) {
  EXPECT_EQ(JSONValue(42.0).write(), "42");
  EXPECT_EQ(JSONValue(-7).write(), "-7");
  EXPECT_EQ(JSONValue(-0.0).write(), "0");
  EXPECT_EQ(JSONValue(1e15).write(), "1000000000000000");
  EXPECT_EQ(JSONValue(9223372036854775808.0).write(), "9223372036854775808");
  EXPECT_EQ(JSONValue(0.25).write(), "0.25");
  // Fractions survive the round trip exactly.
  const double third = 1.0 / 3.0;
  EXPECT_EQ(JSONValue::read(*JSONValue(third).write()).value, JSONValue(third));
}

TEST(JSONValueTest, WritingFailsOnANumberThatIsNotFiniteAnywhereInTheValue) {
  const double inf = std::numeric_limits<double>::infinity();
  EXPECT_FALSE(JSONValue(inf).write().has_value());
  EXPECT_FALSE(JSONValue::object({{"a", JSONValue::array({1, std::nan("")})}}).write());
  EXPECT_EQ(JSONValue(nullptr).write(), "null");
}

TEST(JSONValueTest, WritingRoundTripsAndKeepsSlashesAndReplacesBadUTF8) {
  auto v = JSONValue::object({{"path", "a/b"},
                              {"list", JSONValue::array({true, nullptr, "é", 1.5})},
                              {"empty", JSONValue::object({})}});
  auto text = v.write();
  ASSERT_TRUE(text);
  EXPECT_NE(text->find("a/b"), std::string::npos);
  EXPECT_EQ(JSONValue::read(*text).value, v);
  EXPECT_EQ(JSONValue(std::string("a\xff")).write(), "\"a\xEF\xBF\xBD\"");
}

}  // namespace
}  // namespace quorel
