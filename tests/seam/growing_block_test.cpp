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

TEST(BlockWithoutMemory, IsReservedForWhatHasComeWhenThereIsNoneForMore) {
  const std::string bytes(2 * GrowingBlock::kFirstBytes, 'x');
  GrowingBlock block;
  reallocs_that_fail = 1;
  block.append(bytes, std::numeric_limits<std::size_t>::max());
  EXPECT_EQ(block.reserved_bytes(), bytes.size());
  EXPECT_TRUE(block.take().view == bytes);
}

TEST(BlockWithoutMemory, KeepsWhatCameBefore) {
  GrowingBlock block;
  block.append("before", 6);
  reallocs_that_fail = 2;
  EXPECT_THROW(block.append("more", 6), std::bad_alloc);
  EXPECT_EQ(reallocs_that_fail, 0);
  EXPECT_EQ(block.take().view, "before");
}

}  // namespace
}  // namespace tolk::test
