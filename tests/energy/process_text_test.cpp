#include "energy/process_text.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace quorel {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::string kBad = "\xEF\xBF\xBD";

TEST(RepairUTF8Test, KeepsWellFormedTextOfEveryLengthUntouched) {
  const std::string text =
      "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x94\x8B\xF4\x8F\xBF\xBF";  // a é € 🔋 U+10FFFF
  EXPECT_EQ(repairUTF8(text), text);
  EXPECT_EQ(repairUTF8(std::string("nul\0inside", 10)), std::string("nul\0inside", 10));
}

TEST(RepairUTF8Test, ReplacesEachMaximalIllFormedPartWithOneCharacter) {
  struct Case {
    std::string input;
    std::string expected;
  };
  const std::vector<Case> cases = {
      {"\xFF"
       "a",
       kBad + "a"},               // never a lead byte
      {"\x80\x80", kBad + kBad},  // lone continuations, one each
      {"\xE2\x82"
       "A",
       kBad + "A"},                                     // a cut sequence is one part
      {"ab\xF0\x9F\x94", "ab" + kBad},                  // cut at the very end
      {"\xC0\xAF", kBad + kBad},                        // overlong two-byte '/'
      {"\xE0\x80\xAF", kBad + kBad + kBad},             // overlong three-byte
      {"\xED\xA0\x80", kBad + kBad + kBad},             // a surrogate
      {"\xF4\x90\x80\x80", kBad + kBad + kBad + kBad},  // above U+10FFFF
      {"\xC3"
       "\xC3\xA9",
       kBad + "\xC3\xA9"},  // a lead right before a good pair
  };
  for (const auto& c : cases) {
    EXPECT_EQ(repairUTF8(c.input), c.expected) << ::testing::PrintToString(c.input);
  }
}

TEST(SplitArgumentsTest, SplitsOnNulWithOrWithoutTheFinalOne) {
  using namespace std::string_literals;
  EXPECT_THAT(splitArguments("python3\0-m\0mlx_lm.server\0"s),
              ElementsAre("python3", "-m", "mlx_lm.server"));
  EXPECT_THAT(splitArguments("node\0/opt/cli.js"s), ElementsAre("node", "/opt/cli.js"));
  // An empty argument in the middle is still an argument and keeps the later ones in place.
  EXPECT_THAT(splitArguments("printf\0\0x\0"s), ElementsAre("printf", "", "x"));
}

TEST(SplitArgumentsTest, DropsPaddingAndRepairsEachArgument) {
  using namespace std::string_literals;
  // A rewritten title: spaces inside one argument, NUL padding after it.
  EXPECT_THAT(splitArguments("worker: idle (2 jobs)\0\0\0\0\0"s),
              ElementsAre("worker: idle (2 jobs)"));
  EXPECT_THAT(splitArguments("tool\0caf\xE9\0"s), ElementsAre("tool", "caf" + kBad));
  EXPECT_THAT(splitArguments("\0\0"s), IsEmpty());
}

}  // namespace
}  // namespace quorel
