// The streaming writer against the text nlohmann gives for the same values: JSONValue's written
// form is what dumping an equivalent document gives, but for numbers, whose digits are the
// shortest that read back alike.

#include "core/json_text_writer.hpp"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <nlohmann/json.hpp>
#include <random>
#include <string>

#include "core/json_value.hpp"

namespace quorel {
namespace {

std::string dumped(const nlohmann::json& j) {
  return j.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string written(std::string_view s) {
  std::string out;
  json_text::appendString(out, s);
  return out;
}

TEST(JSONTextWriterTest, StringsAreEscapedAsNlohmannEscapesThem) {
  // Every ASCII byte alone and amid text, so each escape is checked at a run's edge and inside.
  for (int c = 0; c < 0x80; ++c) {
    const std::string alone(1, static_cast<char>(c));
    const std::string amid = "ab" + alone + "cd" + alone;
    EXPECT_EQ(written(alone), dumped(alone)) << "byte " << c;
    EXPECT_EQ(written(amid), dumped(amid)) << "byte " << c;
  }
  const std::string cases[] = {
      "",
      R"({"a":"b\"c","t":[1,2]})",  // an answer carried inside another
      "caf\xC3\xA9 \"\x01",         // UTF-8 beside escapes
      "bad \xFF byte \"",           // not UTF-8: mended
      std::string("nul\0inside", 10),
  };
  for (const auto& s : cases) EXPECT_EQ(written(s), dumped(s)) << s;
}

// The shortest text that reads back as the same double, in the layout nlohmann gives: fixed
// from 1e-4 up to 1e15, an exponent of at least two digits outside, whole numbers that fit 64
// bits as integers. nlohmann's own digits are sometimes one longer or one off in the last place;
// both read back alike.
void expectNumberLikeNlohmann(double d) {
  std::string out;
  ASSERT_TRUE(json_text::appendNumber(out, d));
  const bool whole =
      std::trunc(d) == d && d >= -9223372036854775808.0 && d < 18446744073709551616.0;
  const std::string reference = dumped(!whole  ? nlohmann::json(d)
                                       : d < 0 ? nlohmann::json(static_cast<std::int64_t>(d))
                                               : nlohmann::json(static_cast<std::uint64_t>(d)));
  EXPECT_EQ(nlohmann::json::parse(out).get<double>(), d) << out;
  // Between these bounds the layout is a plain decimal, and the digits are fmt's shortest.
  if (!whole && std::fabs(d) >= 1e-4 && std::fabs(d) < 1e15) {
    EXPECT_EQ(out, fmt::format("{}", d));
  }
  EXPECT_LE(out.size(), reference.size()) << out << " against " << reference;
  EXPECT_EQ(out.find('e') == std::string::npos, reference.find('e') == std::string::npos)
      << out << " against " << reference;
  if (const auto e = out.find('e'); e != std::string::npos) {
    EXPECT_EQ(out.substr(e), reference.substr(reference.find('e'))) << out;
  }
}

TEST(JSONTextWriterTest, NumbersAreTheShortestThatReadBackLaidOutAsNlohmannLaysThemOut) {
  const double cases[] = {0.1,
                          1.0 / 3.0,
                          -2.5e-7,
                          1e21,
                          1.5e300,
                          5e-324,
                          123456.789,
                          -0.001,
                          1e16 + 2,
                          0.3,
                          -1e-5,
                          42,
                          -0.0,
                          1e15,
                          9.0e18,
                          -9.3e18,
                          1.8e19,
                          3.7e19,
                          2.0 / 3.0e10,
                          1e-4,
                          9.99e-5,
                          1e15 - 0.5,
                          1e15 + 0.5,
                          783883953637615.3,
                          348975.82768618717};
  for (const double d : cases) expectNumberLikeNlohmann(d);
  // Across magnitudes and bit patterns, where the two ways of finding digits part now and then.
  std::mt19937_64 random(20261124);
  for (int i = 0; i < 20000; ++i) {
    double d = 0;
    if (i % 2 == 0) {
      const std::uint64_t bits = random();
      std::memcpy(&d, &bits, sizeof d);
      if (!std::isfinite(d)) continue;
    } else {
      d = std::ldexp(static_cast<double>(random() >> 11), static_cast<int>(random() % 120) - 90);
    }
    expectNumberLikeNlohmann(d);
  }
  for (const double d : {std::nan(""), std::numeric_limits<double>::infinity(),
                         -std::numeric_limits<double>::infinity()}) {
    std::string out = "x";
    EXPECT_FALSE(json_text::appendNumber(out, d));
    EXPECT_EQ(out, "x");
  }
}

TEST(JSONTextWriterTest, TimesAreFormattedAsFormatIso8601FormatsThem) {
  // Fractions that floor rather than round, days before 1970, a leap day, the last second of a
  // year and times near both ends of what a nanosecond time point holds (1677 to 2262).
  const double cases[] = {
      0,           0.0005,        1'800'000'000.9999, 1'800'000'000.25, -1.5,
      -86'400.001, 951'782'400.5, 1'798'761'599.999,  -9'000'000'000,   9'000'000'000.999};
  for (const double seconds : cases) {
    const TimePoint t = fromUnixSeconds(seconds);
    std::string out;
    json_text::appendTime(out, t);
    EXPECT_EQ(out, '"' + formatIso8601(t) + '"') << seconds;
  }
}

// Every kind of value, nested, with the separators they need.
void writeContainers(JSONTextWriter& w) {
  w.beginObject();
  w.key("a").beginArray().endArray();
  w.key("b").beginObject().endObject();
  w.key("c").beginArray();
  w.number(1.5).null().boolean(false).string("x").nullableString(std::nullopt);
  w.beginObject().key("d").number(std::numeric_limits<double>::infinity()).endObject();
  w.number(std::optional<double>{}).beginArray().number(2).endArray().boolean(true);
  w.time(fromUnixSeconds(1'800'000'000.25));
  w.endArray();
  w.key("e").nullableString(std::string("y"));
  w.key("longest_member_name_of_forty_characters_").number(-0.5);
  w.endObject();
}

JSONValue containersValue() {
  return JSONValue::object(
      {{"a", JSONValue::Array{}},
       {"b", JSONValue::Object{}},
       {"c", JSONValue::array({1.5, nullptr, false, "x", nullptr,
                               JSONValue::object({{"d", nullptr}}), nullptr, JSONValue::array({2}),
                               true, formatIso8601(fromUnixSeconds(1'800'000'000.25))})},
       {"e", "y"},
       {"longest_member_name_of_forty_characters_", -0.5}});
}

TEST(JSONTextWriterTest, ContainersGiveTheTextOfTheEquivalentValueInEitherForm) {
  // Sized far too small at the start, so that the text grows in the middle of members.
  for (const auto form : {JSONTextWriter::Form::json, JSONTextWriter::Form::inString}) {
    JSONTextWriter w(form, 3);
    writeContainers(w);
    const std::string expected = *containersValue().write();
    if (form == JSONTextWriter::Form::json) {
      EXPECT_EQ(std::move(w).take(), expected);
    } else {
      std::string escaped;
      json_text::appendEscaped(escaped, expected);
      EXPECT_EQ(std::move(w).take(), escaped);
    }
  }
}

TEST(JSONTextWriterTest, StringsNeedingEscapesAreEscapedOnceOrTwiceByForm) {
  // Short words are copied straight in; these take the escaping path in each form.
  const std::string cases[] = {
      "say \"hi\"\n",       "caf\xC3\xA9",
      "bad \xFF byte",      std::string(100, 'x'),  // too long to copy straight in
      std::string(70, '"'),
  };
  for (const auto& s : cases) {
    JSONTextWriter json;
    json.beginArray().string(s).endArray();
    const std::string written = std::move(json).take();
    EXPECT_EQ(written, *JSONValue::array({s}).write()) << s;
    JSONTextWriter inString(JSONTextWriter::Form::inString);
    inString.beginArray().string(s).endArray();
    std::string escaped;
    json_text::appendEscaped(escaped, written);
    EXPECT_EQ(std::move(inString).take(), escaped) << s;
  }
}

}  // namespace
}  // namespace quorel
