#include "control/helper_service_controller.hpp"

#include <gtest/gtest.h>

namespace quorel {
namespace {

TEST(HelperServiceStatusTest, UnitStateAndAllowedUsersGiveTheStatus) {
  using S = HelperServiceStatus;
  struct Case {
    std::optional<std::string> unitFileState;
    uid_t uid;
    S expected;
  };
  const std::vector<uid_t> allowed{1000};
  const Case cases[] = {
      {std::nullopt, 1000, S::notFound},    {"bad", 1000, S::notFound},
      {"disabled", 1000, S::notRegistered}, {"masked", 1000, S::notRegistered},
      {"enabled", 1000, S::enabled},        {"enabled-runtime", 1000, S::enabled},
      {"static", 1000, S::enabled},         {"enabled", 1001, S::requiresApproval},
      {"enabled", 0, S::enabled},           {"disabled", 0, S::notRegistered},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(helperServiceStatusFrom(c.unitFileState, allowed, c.uid), c.expected)
        << c.unitFileState.value_or("(none)") << " uid " << c.uid;
  }
  EXPECT_TRUE(isMaskedUnitFileState("masked-runtime"));
  EXPECT_FALSE(isMaskedUnitFileState("disabled"));
}

TEST(AllowedUidsTest, ParsesLenientlyAndWritesWhatItReads) {
  EXPECT_EQ(parseAllowedUids("# users\n1000\n  1001  # second\n\nabc\n12x\n-5\n1000\n4294967295\n"
                             "4294967296\n0\r\n"),
            (std::vector<uid_t>{1000, 1001, 0}));
  EXPECT_EQ(parseAllowedUids(""), std::vector<uid_t>{});
  const std::vector<uid_t> uids{1000, 0, 1000, 65534};
  EXPECT_EQ(parseAllowedUids(formatAllowedUids(uids)), (std::vector<uid_t>{1000, 0, 65534}));
  auto missing = readAllowedUids("/nonexistent/quorel/allowed");
  ASSERT_TRUE(missing);
  EXPECT_TRUE(missing->empty());
}

}  // namespace
}  // namespace quorel
