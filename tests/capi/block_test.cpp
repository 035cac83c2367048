// Blocks of the C interface, by its functions alone.

#include "capi/block.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tolk/c.h>

#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "tests/capi/c_block.h"
#include "tests/params/hex.h"

namespace tolk::test {
namespace {

using namespace std::string_literals;

std::string encoded_hex(tolk_block* block) { return to_hex(encoded(block)); }

std::string text_at(const tolk_block* block, std::size_t index) {
  std::size_t size = 0;
  const char* const text = tolk_block_text(block, index, &size);
  if (text == nullptr) return "null";
  EXPECT_EQ(text[size], '\0');
  return {text, size};
}

TEST(CBlock, ScalarsAreEncodedAsThoseOfPlainPeers) {
  const CBlock block;
  tolk_block_add_int(block, 7);
  tolk_block_add_bool(block, true);
  tolk_block_add_double(block, 1.5);
  tolk_block_add_text(block, "sum", TOLK_TO_ZERO);
  tolk_block_add_bytes(block, "\0x", 2);
  tolk_block_add_key(block, "ok");
  tolk_block_add_bool(block, false);
  EXPECT_EQ(encoded_hex(block), normal("00 07000000 05000000"
                                       "01 31 0B000000"
                                       "02 000000000000F83F 18000000"
                                       "03 03000000 73756D 24000000"
                                       "04 02000000 0078 2F000000"
                                       "05 03 02000000 6F6B 3B000000 01 30 41000000"));
}

TEST(CBlock, ValuesWithoutARecordAreStreamsWithANote) {
  struct Case {
    const char* what;
    void (*add)(tolk_block*);
    const char* record;
    const char* note;
  };
  const Case cases[] = {
      {"none", [](tolk_block* block) { tolk_block_add_none(block); }, "04 00000000 05000000",
       "0=none"},
      {"int64", [](tolk_block* block) { tolk_block_add_int(block, -0x80000001LL); },
       "04 08000000 FFFFFF7FFFFFFFFF 0D000000", "0=int64"},
      {"uint64", [](tolk_block* block) { tolk_block_add_uint(block, UINT64_MAX); },
       "04 08000000 FFFFFFFFFFFFFFFF 0D000000", "0=uint64"},
      {"text", [](tolk_block* block) { tolk_block_add_text(block, "a\0b", 3); },
       "04 03000000 610062 08000000", "0=text"},
      {"map",
       [](tolk_block* block) {
         const CBlock entries;
         tolk_block_add_key(entries, "k");
         tolk_block_add_int(entries, 1);
         tolk_block_add_map(block, entries);
       },
       "04 14000000 05 03 01000000 6B 07000000 00 01000000 10000000 19000000", "0=map"},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(each.what);
    const CBlock block;
    each.add(block);
    const CBlock noted;
    std::string expected = hex(each.record);
    append_types(expected, each.note);
    EXPECT_EQ(encoded_hex(block), to_hex(expected));
  }
}

TEST(CBlock, ListUnderAKeyIsANestedBlockWithANote) {
  const CBlock block;
  const std::int64_t values[] = {1, 2};
  tolk_block_add_key(block, "k");
  tolk_block_add_ints(block, values, 2);
  std::string expected =
      hex("05 03 01000000 6B 07000000"
          "04 12000000 00 01000000 05000000 00 02000000 0E000000 22000000");
  append_types(expected, "0=list");
  EXPECT_EQ(encoded_hex(block), to_hex(expected));
}

TEST(CBlock, IntegersOfEverySizeAreReadBack) {
  const std::int64_t limit32 = std::numeric_limits<std::int32_t>::max();
  for (const std::int64_t value : {std::int64_t{0}, std::int64_t{-1}, limit32, limit32 + 1,
                                   -limit32 - 1, -limit32 - 2, INT64_MAX, INT64_MIN}) {
    const CBlock block;
    tolk_block_add_int(block, value);
    const CBlock read = parsed(encoded(block));
    EXPECT_EQ(tolk_block_kind(read, 0), TOLK_INT);
    EXPECT_EQ(tolk_block_int(read, 0), value);
    EXPECT_EQ(tolk_block_uint(read, 0), value < 0 ? 0U : static_cast<std::uint64_t>(value));
    EXPECT_EQ(tolk_block_double(read, 0), static_cast<double>(value));
    EXPECT_EQ(tolk_block_total(read), 1U);
  }
  const CBlock block;
  tolk_block_add_uint(block, INT64_MAX);
  tolk_block_add_uint(block, std::uint64_t{INT64_MAX} + 1);
  EXPECT_EQ(tolk_block_kind(block, 0), TOLK_INT);
  EXPECT_EQ(tolk_block_kind(block, 1), TOLK_UINT);
  EXPECT_EQ(tolk_block_int(block, 1), 0);
  EXPECT_EQ(tolk_block_uint(block, 1), std::uint64_t{INT64_MAX} + 1);
  EXPECT_EQ(tolk_block_double(block, 1), 9223372036854775808.0);
}

TEST(CBlock, TextsAndBytesAreReadAsEachOther) {
  const CBlock block;
  const std::string long_text(1000, 't');
  tolk_block_add_text(block, "", TOLK_TO_ZERO);
  tolk_block_add_text(block, "a\0b", 3);
  tolk_block_add_text(block, long_text.data(), long_text.size());
  tolk_block_add_bytes(block, "raw", 3);
  tolk_block_add_bytes(block, nullptr, 0);
  const CBlock read = parsed(encoded(block));
  for (const tolk_block* const each : {block.get(), read.get()}) {
    EXPECT_EQ(text_at(each, 0), "");
    EXPECT_EQ(text_at(each, 1), "a\0b"s);
    EXPECT_EQ(text_at(each, 2), long_text);
    EXPECT_EQ(tolk_block_text(each, 2, nullptr), tolk_block_text(each, 2, nullptr));
    EXPECT_EQ(text_at(each, 3), "raw");
    EXPECT_EQ(text_at(each, 4), "");
    EXPECT_EQ(tolk_block_kind(each, 1), TOLK_TEXT);
    EXPECT_EQ(tolk_block_kind(each, 3), TOLK_BYTES);
    std::size_t size = 0;
    const void* const bytes = tolk_block_bytes(each, 1, &size);
    EXPECT_EQ(std::string(static_cast<const char*>(bytes), size), "a\0b"s);
  }
}

TEST(CBlock, ValuesOfOtherKindsReadAsNothing) {
  const CBlock block;
  tolk_block_add_text(block, "1", TOLK_TO_ZERO);
  tolk_block_add_none(block);
  tolk_block_add_double(block, 1);
  tolk_block_add_bool(block, true);
  for (const std::size_t at : {0U, 1U, 2U, 3U, 4U}) {
    std::size_t size = 7;
    EXPECT_EQ(tolk_block_int(block, at), 0);
    EXPECT_EQ(tolk_block_uint(block, at), 0U);
    EXPECT_EQ(tolk_block_bool(block, at), at == 3);
    EXPECT_EQ(tolk_block_double(block, at), at == 2 ? 1.0 : 0.0);
    EXPECT_EQ(tolk_block_text(block, at, &size) != nullptr, at == 0);
    EXPECT_EQ(size, at == 0 ? 1U : 0U);
    EXPECT_EQ(tolk_block_inner(block, at), nullptr);
    EXPECT_EQ(tolk_block_ints(block, at, nullptr, 0), 0U);
    EXPECT_EQ(tolk_block_key(block, at), nullptr);
  }
  EXPECT_EQ(tolk_block_kind(block, 1), TOLK_NONE);
  EXPECT_EQ(tolk_block_kind(block, 4), TOLK_MISSING);
  EXPECT_EQ(tolk_block_kind(block, TOLK_NOWHERE), TOLK_MISSING);
}

TEST(CBlock, KeyedValuesFollowThePositionalOnes) {
  const CBlock block;
  tolk_block_add_key(block, "b");
  tolk_block_add_int(block, 1);
  tolk_block_add_text(block, "first", TOLK_TO_ZERO);
  tolk_block_add_key(block, "a");
  tolk_block_add_int(block, 2);
  tolk_block_add_key(block, "b");
  tolk_block_add_int(block, 3);
  tolk_block_add_key(block, "unused");
  tolk_block_add_key(block, "");
  tolk_block_add_none(block);
  tolk_block_add_key(block, "pending");
  const CBlock read = parsed(encoded(block));
  for (const tolk_block* const each : {block.get(), read.get()}) {
    EXPECT_EQ(tolk_block_count(each), 1U);
    ASSERT_EQ(tolk_block_total(each), 4U);
    EXPECT_STREQ(tolk_block_key(each, 1), "a");
    EXPECT_STREQ(tolk_block_key(each, 2), "b");
    EXPECT_STREQ(tolk_block_key(each, 3), "");
    EXPECT_EQ(tolk_block_int(each, tolk_block_find(each, "b")), 3);
    EXPECT_EQ(tolk_block_kind(each, tolk_block_find(each, "")), TOLK_NONE);
    EXPECT_EQ(tolk_block_find(each, "unused"), TOLK_NOWHERE);
    EXPECT_EQ(tolk_block_find(each, "pending"), TOLK_NOWHERE);
  }
}

TEST(CBlock, ManyKeysAreFoundAndReplaced) {
  const CBlock block;
  for (int round = 0; round < 2; ++round) {
    for (int i = 0; i < 100; ++i) {
      tolk_block_add_key(block, std::to_string(i).c_str());
      tolk_block_add_int(block, 1000 * round + i);
    }
  }
  ASSERT_EQ(tolk_block_total(block), 100U);
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(tolk_block_int(block, tolk_block_find(block, std::to_string(i).c_str())), 1000 + i);
  }
  EXPECT_EQ(tolk_block_find(block, "100"), TOLK_NOWHERE);
}

TEST(CBlock, ListsAndMapsNestInEachOther) {
  const CBlock numbers;
  tolk_block_add_int(numbers, 1);
  tolk_block_add_int(numbers, INT64_MAX);
  const CBlock entries;
  tolk_block_add_key(entries, "list");
  tolk_block_add_list(entries, numbers);
  tolk_block_add_key(entries, "none");
  tolk_block_add_none(entries);
  const CBlock outer;
  tolk_block_add_list(outer, numbers);
  tolk_block_add_map(outer, entries);
  const CBlock block;
  tolk_block_add_list(block, outer);
  tolk_block_add_key(block, "map");
  tolk_block_add_map(block, entries);
  const CBlock read = parsed(encoded(block));
  const CBlock changed = CBlock(tolk_block_copy(read));
  tolk_block_add_int(changed, 5);
  for (const tolk_block* const each : {block.get(), read.get(), changed.get()}) {
    EXPECT_EQ(tolk_block_kind(each, 0), TOLK_LIST);
    const tolk_block* const list = tolk_block_inner(each, 0);
    ASSERT_EQ(tolk_block_count(list), 2U);
    EXPECT_EQ(tolk_block_kind(list, 0), TOLK_LIST);
    EXPECT_EQ(tolk_block_int(tolk_block_inner(list, 0), 1), INT64_MAX);
    std::int64_t values[2] = {};
    EXPECT_EQ(tolk_block_ints(list, 0, values, 2), 2U);
    EXPECT_EQ(values[1], INT64_MAX);
    EXPECT_EQ(tolk_block_kind(list, 1), TOLK_MAP);
    const tolk_block* const map = tolk_block_inner(each, tolk_block_find(each, "map"));
    for (const tolk_block* const one : {tolk_block_inner(list, 1), map}) {
      EXPECT_EQ(tolk_block_count(one), 0U);
      const std::size_t at = tolk_block_find(one, "list");
      EXPECT_EQ(tolk_block_kind(one, at), TOLK_LIST);
      EXPECT_EQ(tolk_block_int(tolk_block_inner(one, at), 1), INT64_MAX);
      EXPECT_EQ(tolk_block_kind(one, tolk_block_find(one, "none")), TOLK_NONE);
    }
    EXPECT_EQ(tolk_block_inner(each, 0), list);
  }
}

TEST(CBlock, ListsTakePositionsAndMapsTakeKeys) {
  const CBlock both;
  tolk_block_add_int(both, 1);
  tolk_block_add_key(both, "k");
  tolk_block_add_int(both, 2);
  const CBlock block;
  tolk_block_add_list(block, both);
  tolk_block_add_map(block, both);
  tolk_block_add_key(block, "list");
  tolk_block_add_list(block, both);
  tolk_block_add_list(block, nullptr);
  for (const std::size_t at : {0U, 3U}) {
    EXPECT_EQ(tolk_block_total(tolk_block_inner(block, at)), 1U);
    EXPECT_EQ(tolk_block_int(tolk_block_inner(block, at), 0), 1);
  }
  const tolk_block* const map = tolk_block_inner(block, 1);
  EXPECT_EQ(tolk_block_total(map), 1U);
  EXPECT_EQ(tolk_block_int(map, tolk_block_find(map, "k")), 2);
  EXPECT_EQ(tolk_block_kind(block, 2), TOLK_LIST);
  EXPECT_EQ(tolk_block_total(tolk_block_inner(block, 2)), 0U);
}

TEST(CBlock, NumbersOfListsAreCopied) {
  const std::int64_t small[] = {1, -2, 3};
  const std::int64_t wide[] = {1, INT64_MIN};
  const double reals[] = {0.5, 2};
  const CBlock block;
  tolk_block_add_ints(block, small, 3);
  tolk_block_add_ints(block, wide, 2);
  tolk_block_add_doubles(block, reals, 2);
  tolk_block_add_key(block, "small");
  tolk_block_add_ints(block, small, 3);
  tolk_block_add_key(block, "wide");
  tolk_block_add_ints(block, wide, 2);
  tolk_block_add_key(block, "reals");
  tolk_block_add_doubles(block, reals, 2);
  const CBlock read = parsed(encoded(block));
  for (const tolk_block* const each : {block.get(), read.get()}) {
    for (const std::size_t base : {0U, 3U}) {
      std::int64_t ints[3] = {9, 9, 9};
      EXPECT_EQ(tolk_block_ints(each, base, ints, 2), 3U);
      EXPECT_EQ(ints[1], -2);
      EXPECT_EQ(ints[2], 9);
      EXPECT_EQ(tolk_block_ints(each, base + 1, ints, 3), 2U);
      EXPECT_EQ(ints[1], INT64_MIN);
      EXPECT_EQ(tolk_block_ints(each, base + 2, ints, 3), 0U);
      double doubles[3] = {};
      EXPECT_EQ(tolk_block_doubles(each, base + 2, doubles, 3), 2U);
      EXPECT_EQ(doubles[0], 0.5);
      EXPECT_EQ(tolk_block_doubles(each, base, doubles, 3), 3U);
      EXPECT_EQ(doubles[2], 3.0);
    }
  }
}

// The first records lie in the block itself.
TEST(CBlock, InnerBlockOfABuiltOneIsCopiedWithItsBytes) {
  CBlock copy;
  {
    const CBlock numbers;
    tolk_block_add_int(numbers, 5);
    const CBlock block;
    tolk_block_add_key(block, "k");
    tolk_block_add_list(block, numbers);
    copy = CBlock(tolk_block_copy(tolk_block_inner(block, 0)));
  }
  EXPECT_EQ(tolk_block_int(copy, 0), 5);
}

TEST(CBlock, SharedBytesStayWhenTheBlockChanges) {
  const CBlock block;
  tolk_block_add_int(block, 5);
  const std::string before = to_hex(block.get()->share().view);
  const SharedBytes shared = block.get()->share();
  tolk_block_clear(block);
  tolk_block_add_int(block, 6);
  EXPECT_EQ(to_hex(shared.view), before);
}

TEST(CBlock, CopyIsChangedAlone) {
  const CBlock block;
  tolk_block_add_int(block, 1);
  const CBlock copy = CBlock(tolk_block_copy(block));
  tolk_block_add_int(copy, 2);
  tolk_block_add_text(block, "x", TOLK_TO_ZERO);
  EXPECT_EQ(tolk_block_count(block), 2U);
  EXPECT_EQ(tolk_block_kind(block, 1), TOLK_TEXT);
  EXPECT_EQ(tolk_block_int(copy, 1), 2);
  tolk_block_clear(block);
  EXPECT_EQ(tolk_block_total(block), 0U);
  EXPECT_EQ(tolk_block_count(copy), 2U);
}

TEST(CBlock, CopyOfAnInnerBlockOutlivesTheOuterOne) {
  CBlock plain;
  CBlock nested;
  {
    const CBlock numbers;
    tolk_block_add_int(numbers, INT64_MAX);
    const CBlock block;
    tolk_block_add_list(block, numbers);
    tolk_block_add_key(block, "k");
    tolk_block_add_list(block, numbers);
    const CBlock read = parsed(encoded(block));
    plain = CBlock(tolk_block_copy(tolk_block_inner(read, 0)));
    nested = CBlock(tolk_block_copy(tolk_block_inner(read, 1)));
  }
  EXPECT_EQ(tolk_block_int(plain, 0), INT64_MAX);
  EXPECT_EQ(tolk_block_int(nested, 0), INT64_MAX);
  EXPECT_EQ(encoded_hex(plain), encoded_hex(nested));
}

TEST(CBlock, BlockCanBeAddedToItself) {
  const CBlock block;
  tolk_block_add_int(block, 1);
  tolk_block_add_list(block, block);
  EXPECT_EQ(tolk_block_count(block), 2U);
  EXPECT_EQ(tolk_block_int(tolk_block_inner(block, 1), 0), 1);
}

TEST(CBlock, BytesThatHoldABlockHaveInnerValues) {
  const CBlock inside;
  tolk_block_add_int(inside, 5);
  const std::string bytes = encoded(inside);
  const CBlock block;
  tolk_block_add_bytes(block, bytes.data(), bytes.size());
  tolk_block_add_bytes(block, bytes.data(), bytes.size() - 1);
  EXPECT_EQ(tolk_block_int(tolk_block_inner(block, 0), 0), 5);
  EXPECT_EQ(tolk_block_inner(block, 1), nullptr);
}

int freed = 0;
void count_freed(void*) { ++freed; }

TEST(CBlock, HeldBytesAreFreedOnceByTheLastBlock) {
  freed = 0;
  const std::string bytes(100'000, 'h');
  CBlock copy;
  {
    const CBlock block;
    tolk_block_add_int(block, 1);
    tolk_block_add_bytes_held(block, bytes.data(), bytes.size(), nullptr, count_freed);
    tolk_block_add_int(block, 2);
    copy = CBlock(tolk_block_copy(block));
    const CBlock nested;
    tolk_block_add_key(nested, "k");
    tolk_block_add_list(nested, block);
    const tolk_block* const inner = tolk_block_inner(nested, 0);
    EXPECT_EQ(text_at(inner, 1), bytes);
    EXPECT_EQ(tolk_block_int(inner, 2), 2);
  }
  EXPECT_EQ(freed, 0);
  const CBlock read = parsed(encoded(copy));
  EXPECT_EQ(text_at(read, 1), bytes);
  EXPECT_EQ(tolk_block_int(read, 2), 2);
  EXPECT_EQ(text_at(copy, 1), bytes);
  copy = CBlock();
  EXPECT_EQ(freed, 1);
  tolk_block_add_bytes_held(nullptr, bytes.data(), bytes.size(), nullptr, count_freed);
  EXPECT_EQ(freed, 2);
  tolk_block_add_bytes_held(copy, bytes.data(), 10, nullptr, count_freed);
  EXPECT_EQ(freed, 3) << "few bytes are copied at once";
}

TEST(CBlock, ReservedKeyMakesTheBlockUnusable) {
  for (const char* const key :
       {"s_c_sw_name", "tolk.types", "tolk.", static_cast<const char*>(nullptr)}) {
    const CBlock block;
    tolk_block_add_int(block, 1);
    tolk_block_add_key(block, key);
    tolk_block_add_int(block, 2);
    EXPECT_EQ(tolk_block_total(block), 0U);
    EXPECT_EQ(tolk_block_encode(block, nullptr), nullptr);
    const CBlock outer;
    tolk_block_add_list(outer, CBlock(tolk_block_copy(block)));
    EXPECT_EQ(outer.get()->status(), TOLK_MISUSE);
    EXPECT_THAT(outer.get()->reason(), testing::HasSubstr(key == nullptr ? "null" : key));
    tolk_block_clear(block);
    EXPECT_EQ(block.get()->reason(), nullptr);
    tolk_block_add_int(block, 3);
    EXPECT_EQ(tolk_block_int(block, 0), 3);
  }
}

TEST(CBlock, NullIsAcceptedEverywhere) {
  tolk_block_free(nullptr);
  tolk_block_clear(nullptr);
  tolk_block_add_key(nullptr, "k");
  tolk_block_add_none(nullptr);
  tolk_block_add_bool(nullptr, true);
  tolk_block_add_int(nullptr, 1);
  tolk_block_add_uint(nullptr, 1);
  tolk_block_add_double(nullptr, 1);
  tolk_block_add_text(nullptr, "", 0);
  tolk_block_add_bytes(nullptr, "", 0);
  tolk_block_add_list(nullptr, nullptr);
  tolk_block_add_map(nullptr, nullptr);
  tolk_block_add_ints(nullptr, nullptr, 0);
  tolk_block_add_doubles(nullptr, nullptr, 0);
  EXPECT_EQ(tolk_block_total(nullptr), 0U);
  EXPECT_EQ(tolk_block_count(nullptr), 0U);
  EXPECT_EQ(tolk_block_find(nullptr, "k"), TOLK_NOWHERE);
  EXPECT_EQ(tolk_block_kind(nullptr, 0), TOLK_MISSING);
  EXPECT_EQ(tolk_block_encode(nullptr, nullptr), nullptr);
  const CBlock block = CBlock(tolk_block_copy(nullptr));
  EXPECT_EQ(tolk_block_total(block), 0U);
  std::size_t size = 7;
  EXPECT_NE(tolk_block_encode(block, &size), nullptr);
  EXPECT_EQ(size, 0U);
}

TEST(CBlock, SeveralThreadsMakeTheSameInnerBlocksAndTexts) {
  const CBlock inside;
  tolk_block_add_text(inside, std::string(500, 'x').c_str(), TOLK_TO_ZERO);
  const CBlock block;
  for (int i = 0; i < 200; ++i)
    tolk_block_add_map(block, inside), tolk_block_add_list(block, inside);
  std::vector<std::thread> threads;
  std::vector<std::vector<const void*>> seen(4);
  for (auto& pointers : seen) {
    threads.emplace_back([&block, &pointers] {
      for (std::size_t i = 1; i < 400; i += 2) {
        const tolk_block* const inner = tolk_block_inner(block, i);
        pointers.push_back(inner);
        pointers.push_back(tolk_block_text(inner, 0, nullptr));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (const auto& pointers : seen) EXPECT_EQ(pointers, seen[0]);
}

}  // namespace
}  // namespace tolk::test
