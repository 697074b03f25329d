#include "core/result.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace quorel {
namespace {

Result<std::vector<int>> rows(bool fail) {
  if (fail) return Error{"no such table: sessions"};
  return std::vector<int>{};
}

TEST(ResultTest, AnEmptyAnswerAndAFailureAreToldApart) {
  const auto empty = rows(false);
  ASSERT_TRUE(empty.ok());
  EXPECT_TRUE(empty->empty());
  const auto failed = rows(true);
  ASSERT_FALSE(failed);
  EXPECT_EQ(failed.error().message, "no such table: sessions");
  EXPECT_NE(empty, failed);
  EXPECT_EQ(failed.valueOr({7}), std::vector<int>{7});
  EXPECT_EQ(empty.valueOr({7}), std::vector<int>{});
}

}  // namespace
}  // namespace quorel
