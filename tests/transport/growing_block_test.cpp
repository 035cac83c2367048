// A large block as it comes, piece by piece: its bytes, and what it holds ahead of them.
#include "transport/growing_block.h"

#include <gtest/gtest.h>
#include <tests/pattern.h>

#include <algorithm>
#include <cstddef>
#include <limits>
#include <set>
#include <span>
#include <string>
#include <string_view>

namespace {

using tolk::GrowingBlock;
using tolk::test::pattern;

constexpr std::size_t kMost = std::numeric_limits<std::size_t>::max();

void append_in_pieces(GrowingBlock& block, const std::string& bytes, std::size_t piece_bytes) {
  for (std::size_t at = 0; at < bytes.size(); at += piece_bytes) {
    block.append(std::string_view(bytes).substr(at, piece_bytes), bytes.size());
  }
}

TEST(GrowingBlock, GivesBackWhatCame) {
  for (const std::size_t size : {0u, 1u, 99u, 1000u, 3000000u}) {
    for (const std::size_t piece : {1u, 7u, 100u, 250u, 32768u}) {
      if (size / piece > 100000) continue;
      GrowingBlock block;
      append_in_pieces(block, pattern(size), piece);
      EXPECT_EQ(block.size(), size);
      EXPECT_TRUE(block.take().view == pattern(size)) << size << " in pieces of " << piece;
      EXPECT_EQ(block.size(), 0u);
      EXPECT_EQ(block.reserved_bytes(), 0u);
    }
  }
}

TEST(GrowingBlock, IsNotCopiedWhenItIsTakenAndStaysWhileItIsHeld) {
  GrowingBlock block;
  append_in_pieces(block, pattern(3000000), 32768);
  const char* const end = block.room(kMost).data();
  tolk::SharedBytes taken = block.take();
  EXPECT_EQ(taken.view.data() + taken.view.size(), end);
  const auto second_holder = taken.owner;
  append_in_pieces(block, std::string(1000, '-'), 100);
  EXPECT_TRUE(taken.view == pattern(3000000));
}

TEST(GrowingBlock, BytesThatWereWrittenToTheRoomStayThere) {
  const std::string bytes = pattern(3000000);
  GrowingBlock block;
  for (std::string_view rest = bytes; !rest.empty();) {
    const std::span<char> room = block.room(bytes.size());
    ASSERT_FALSE(room.empty());
    const std::size_t size = rest.copy(room.data(), std::min<std::size_t>(room.size(), 5000));
    block.append({room.data(), size}, bytes.size());
    rest.remove_prefix(size);
  }
  EXPECT_TRUE(block.take().view == bytes);
}

TEST(GrowingBlock, DeclaredTotalIsReservedOnlyWhileItIsSmall) {
  GrowingBlock small;
  small.append(pattern(20), 100);
  EXPECT_EQ(small.reserved_bytes(), 100u);
  GrowingBlock huge;
  huge.append(pattern(20), kMost);
  EXPECT_EQ(huge.reserved_bytes(), GrowingBlock::kFirstBytes);
}

TEST(GrowingBlock, ReserveFollowsTheBytesThatCame) {
  const std::string piece(1 << 20, 'x');
  GrowingBlock block;
  std::set<std::size_t> sizes;
  for (int i = 0; i < 80; ++i) {
    block.append(piece, kMost);
    EXPECT_LE(block.reserved_bytes(), GrowingBlock::kGrowth * block.size());
    sizes.insert(block.reserved_bytes());
  }
  EXPECT_LE(sizes.size(), 4u) << "each time it grows, its bytes may be moved";
}

TEST(GrowingBlock, IsFullExactlyWhenTheTotalHasCome) {
  GrowingBlock block;
  append_in_pieces(block, pattern(2500000), 65536);
  EXPECT_EQ(block.reserved_bytes(), 2500000u);
}

TEST(GrowingBlock, WrongTotalsDoNoHarm) {
  for (const std::size_t total : {std::size_t{0}, std::size_t{1}, std::size_t{150}, kMost}) {
    GrowingBlock block;
    for (int i = 0; i < 10; ++i) block.append(pattern(33), total);
    EXPECT_EQ(block.take().view.size(), 330u);
  }
}

TEST(GrowingBlock, ClearForgetsEverything) {
  GrowingBlock block;
  block.append(pattern(250), 300);
  block.clear();
  EXPECT_EQ(block.reserved_bytes(), 0u);
  block.append("x", 1);
  EXPECT_EQ(block.take().view, "x");
}

}  // namespace
