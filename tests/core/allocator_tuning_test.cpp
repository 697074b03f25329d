// The allocator settings the agent starts with, checked by what the C library then does with a
// block the size of a day's history answer.

#include "core/allocator_tuning.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

namespace quorel {
namespace {

// A sanitizer's allocator stands in for the C library's and takes none of its settings.
#if defined(__GLIBC__) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST(AllocatorTuningTest, AnAnswerSizedBlockComesFromTheHeapAndItsPagesStayWhenFreed) {
  ASSERT_TRUE(keepFreedMemoryForReuse());
  constexpr std::size_t kBlock = 512 * 1024;  // above the library's own 128 KiB thresholds
  const struct mallinfo2 before = mallinfo2();
  void* block = std::malloc(kBlock);
  ASSERT_NE(block, nullptr);
  std::memset(block, 1, kBlock);
  const struct mallinfo2 held = mallinfo2();
  EXPECT_EQ(held.hblkhd, before.hblkhd) << "the block was mapped on its own";
  std::free(block);
  const struct mallinfo2 after = mallinfo2();
  EXPECT_EQ(after.arena, held.arena) << "the heap was trimmed when the block was freed";
  EXPECT_GE(after.fordblks, kBlock);
}
#endif

}  // namespace
}  // namespace quorel
