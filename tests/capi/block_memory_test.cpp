// Blocks of the C interface with every single allocation failing in turn, and callbacks without
// memory. A program of its own, since it replaces the allocation functions.

#include <gtest/gtest.h>
#include <tolk/c.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>

#include "capi/client_core.h"
#include "capi/hook_task.h"

namespace {

int allocations_until_failure = -1;  // below 0: none fails
long live_allocations = 0;
long all_allocations = 0;

void* allocate(std::size_t size) {
  if (allocations_until_failure == 0) throw std::bad_alloc();
  if (allocations_until_failure > 0) --allocations_until_failure;
  void* const memory = std::malloc(size);
  if (memory == nullptr) throw std::bad_alloc();
  ++live_allocations;
  ++all_allocations;
  return memory;
}

void free_counted(void* memory) {
  if (memory == nullptr) return;
  --live_allocations;
  std::free(memory);
}

}  // namespace

void* operator new(std::size_t size) { return allocate(size); }
void* operator new[](std::size_t size) { return allocate(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return allocations_until_failure == 0 ? nullptr : allocate(size);
}
void operator delete(void* memory) noexcept { free_counted(memory); }
void operator delete[](void* memory) noexcept { free_counted(memory); }
void operator delete(void* memory, std::size_t) noexcept { free_counted(memory); }
void operator delete[](void* memory, std::size_t) noexcept { free_counted(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { free_counted(memory); }

namespace {

int released = 0;
void count_release(void*) { ++released; }

const std::string large(10'000, 'l');

void add_everything(tolk_block* block, tolk_block* inner) {
  const std::int64_t wide[] = {1, INT64_MAX};
  tolk_block_add_int(inner, INT64_MAX);
  tolk_block_add_list(block, inner);
  tolk_block_add_key(block, "map");
  tolk_block_add_map(block, inner);
  tolk_block_add_ints(block, wide, 2);
  tolk_block_add_text(block, large.c_str(), TOLK_TO_ZERO);
  tolk_block_add_bytes_held(block, large.data(), large.size(), nullptr, count_release);
  tolk_block_add_none(block);
}

// Reads everything, and does not know which allocation fails.
void read_everything(const tolk_block* block) {
  for (std::size_t i = 0; i < tolk_block_total(block); ++i) {
    tolk_block_text(block, i, nullptr);
    tolk_block_int(tolk_block_inner(block, i), 0);
  }
}

void add_usual_values(tolk_block* block) {
  tolk_block_add_int(block, 7);
  tolk_block_add_bool(block, true);
  tolk_block_add_double(block, 1.5);
  tolk_block_add_text(block, "a text of some bytes", TOLK_TO_ZERO);
  tolk_block_add_bytes(block, large.data(), 64);
  for (const char* const key : {"alpha", "beta"}) {
    tolk_block_add_key(block, key);
    tolk_block_add_int(block, 1);
  }
}

// The block with its records; and the block, with its bytes and index in one piece.
TEST(CBlockMemory, SmallBlockIsBuiltInOnePieceAndParsedInTwo) {
  const long before = all_allocations;
  tolk_block* const built = tolk_block_new();
  add_usual_values(built);
  std::size_t size = 0;
  const void* const bytes = tolk_block_encode(built, &size);
  EXPECT_EQ(all_allocations, before + 1);
  tolk_block* block = nullptr;
  ASSERT_EQ(tolk_block_parse(bytes, size, &block, nullptr, nullptr), TOLK_OK);
  EXPECT_STREQ(tolk_block_text(block, 3, nullptr), "a text of some bytes");
  EXPECT_EQ(tolk_block_int(block, tolk_block_find(block, "beta")), 1);
  EXPECT_EQ(all_allocations, before + 3);
  tolk_block_free(block);
  tolk_block_free(built);
}

TEST(CBlockMemory, BlockGrowsOutOfItsRoom) {
  const long before = all_allocations;
  tolk_block* const block = tolk_block_new();
  std::int64_t last = 0;
  while (all_allocations == before + 1) tolk_block_add_int(block, ++last);
  EXPECT_EQ(all_allocations, before + 2);
  EXPECT_GT(last, 20);
  ASSERT_EQ(tolk_block_total(block), static_cast<std::size_t>(last));
  for (std::int64_t i = 0; i < last; ++i) {
    EXPECT_EQ(tolk_block_int(block, static_cast<std::size_t>(i)), i + 1);
  }
  tolk_block_clear(block);
  const long after = all_allocations;
  add_usual_values(block);
  EXPECT_EQ(all_allocations, after) << "a cleared block begins in its room again";
  tolk_block_free(block);
}

// One that has lost a value without memory would be sent with others missing.
TEST(CBlockMemory, BlockIsWholeOrWithoutMemory) {
  bool is_whole = false;
  for (int nth = 0; !is_whole; ++nth) {
    const long before = live_allocations;
    released = 0;
    allocations_until_failure = nth;
    tolk_block* const block = tolk_block_new();
    tolk_block* const inner = tolk_block_new();
    add_everything(block, inner);
    std::size_t size = 0;
    const void* const encoded = tolk_block_encode(block, &size);
    is_whole = encoded != nullptr;
    allocations_until_failure = -1;
    const std::size_t total = tolk_block_total(block);
    EXPECT_TRUE(total == 0 || total == 6) << nth;
    if (is_whole) {
      EXPECT_EQ(total, 6U);
    }
    tolk_block_add_int(block, 1);
    EXPECT_EQ(tolk_block_total(block), total == 0 ? 0U : 7U) << "no memory lasts";
    tolk_block_free(inner);
    tolk_block_free(block);
    EXPECT_EQ(released, 1) << nth;
    EXPECT_EQ(live_allocations, before) << nth;
    ASSERT_LT(nth, 200);
  }
}

TEST(CBlockMemory, ReadingAndCopyingFailCleanly) {
  tolk_block* const built = tolk_block_new();
  tolk_block* const part = tolk_block_new();
  add_everything(built, part);
  std::size_t size = 0;
  const void* const bytes = tolk_block_encode(built, &size);
  bool is_done = false;
  for (int nth = 0; !is_done; ++nth) {
    const long before = live_allocations;
    allocations_until_failure = nth;
    tolk_block* block = nullptr;
    tolk_error* error = nullptr;
    const tolk_status status = tolk_block_parse(bytes, size, &block, nullptr, &error);
    EXPECT_EQ(status, block != nullptr ? TOLK_OK : TOLK_NO_MEMORY);
    EXPECT_EQ(tolk_error_status(error), status);
    read_everything(block);
    tolk_block* const copy = tolk_block_copy(tolk_block_inner(block, 0));
    tolk_block_add_none(copy);
    is_done = tolk_block_total(copy) == 2;
    allocations_until_failure = -1;
    tolk_error_free(error);
    tolk_block_free(block);
    tolk_block_free(copy);
    EXPECT_EQ(live_allocations, before) << nth;
    ASSERT_LT(nth, 200);
  }
  tolk_block_free(part);
  tolk_block_free(built);
}

// A loss of the connection may have begun before a free in a callback, which does not wait, and
// tell the host afterwards.
TEST(CCallbacksMemory, WhatComesAfterTheEndNeedsNoThread) {
  auto core = std::make_shared<tolk::ClientCore>(tolk::Endpoint(), "", tolk::CoreSettings(),
                                                 tolk_client_options());
  const std::weak_ptr<tolk::Core> left = core;
  bool ran = false;
  auto late = tolk::make_hook([&ran] { ran = true; });
  {
    const tolk::Callbacks::Scope in_a_callback(*core);
    core->end();
  }
  allocations_until_failure = 0;
  core->callbacks().dispatch(late, tolk::Callbacks::When::later);
  allocations_until_failure = -1;
  EXPECT_TRUE(ran);
  late.reset();
  core.reset();
  EXPECT_TRUE(left.expired());
}

}  // namespace
