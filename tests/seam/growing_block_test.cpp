// A large block for which the system has too little memory.
#include "transport/growing_block.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdlib>
#include <limits>
#include <new>
#include <string>

namespace {

thread_local int reallocs_that_fail = 0;

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier): the linker makes these names.
extern "C" {

void* __real_realloc(void* memory, std::size_t size);
void* __wrap_realloc(void* memory, std::size_t size);

void* __wrap_realloc(void* memory, std::size_t size) {
  if (reallocs_that_fail == 0) return __real_realloc(memory, size);
  --reallocs_that_fail;
  return nullptr;
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)

namespace tolk::test {
namespace {

// With how many times its bytes a block of 2 MiB ends, when so many attempts to reserve more fail.
std::size_t factor_after(int failures) {
  const std::string bytes(2 * GrowingBlock::kFirstBytes, 'x');
  GrowingBlock block;
  reallocs_that_fail = failures;
  block.append(bytes, std::numeric_limits<std::size_t>::max());
  EXPECT_EQ(reallocs_that_fail, 0);
  const std::size_t factor = block.reserved_bytes() / bytes.size();
  EXPECT_TRUE(block.take().view == bytes);
  return factor;
}

// From the usual factor down to 2.
int attempts_ahead() {
  int attempts = 0;
  for (std::size_t factor = GrowingBlock::kGrowth; factor > 1; factor /= 2) ++attempts;
  return attempts;
}

TEST(BlockWithoutMemory, ReservesHalfAsMuchAheadUntilTheSystemHasIt) {
  EXPECT_EQ(factor_after(0), GrowingBlock::kGrowth);
  EXPECT_EQ(factor_after(1), GrowingBlock::kGrowth / 2);
  EXPECT_EQ(factor_after(attempts_ahead() - 1), 2u);
  EXPECT_EQ(factor_after(attempts_ahead()), 1u);
}

// A block that offered only a few bytes to each read would never be complete.
TEST(BlockWithoutMemory, RoomIsWorthARead) {
  GrowingBlock block;
  block.append(std::string(2 * GrowingBlock::kFirstBytes, 'x'), 2 * GrowingBlock::kFirstBytes);
  reallocs_that_fail = attempts_ahead();
  EXPECT_GE(block.room(std::numeric_limits<std::size_t>::max()).size(), std::size_t{1} << 16);
  EXPECT_EQ(reallocs_that_fail, 0);
}

TEST(BlockWithoutMemory, KeepsWhatCameBefore) {
  GrowingBlock block;
  block.append("before", 6);
  reallocs_that_fail = attempts_ahead() + 1;
  EXPECT_THROW(block.append("more", 6), std::bad_alloc);
  EXPECT_EQ(reallocs_that_fail, 0);
  EXPECT_EQ(block.take().view, "before");
}

}  // namespace
}  // namespace tolk::test
