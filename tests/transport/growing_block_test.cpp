// A large block as it comes, piece by piece: its bytes, and what it holds ahead of them.
#include "transport/growing_block.h"

#include <gtest/gtest.h>
#include <tests/pattern.h>

#include <algorithm>
#include <cstddef>
#include <limits>
#include <string>

namespace {

using tolk::GrowingBlock;
using tolk::test::pattern;

constexpr std::size_t kMost = std::numeric_limits<std::size_t>::max();

void append_in_pieces(GrowingBlock& block, const std::string& bytes, std::size_t piece_bytes) {
  for (std::size_t at = 0; at < bytes.size(); at += piece_bytes) {
    block.append(std::string_view(bytes).substr(at, piece_bytes), bytes.size());
  }
}

TEST(GrowingBlock, GivesBackWhatCameAcrossAllChunkBorders) {
  constexpr std::size_t kChunk = 100;
  for (const std::size_t size : {0u, 1u, 99u, 100u, 101u, 199u, 200u, 201u, 1000u}) {
    for (const std::size_t piece : {1u, 7u, 99u, 100u, 101u, 250u, 1000u}) {
      GrowingBlock block(kChunk);
      append_in_pieces(block, pattern(size), piece);
      EXPECT_EQ(block.size(), size);
      EXPECT_EQ(block.take(), pattern(size)) << size << " in pieces of " << piece;
      EXPECT_EQ(block.size(), 0u);
    }
  }
}

TEST(GrowingBlock, BlockOfOneChunkIsNotCopiedWhenItIsTaken) {
  GrowingBlock block;
  const std::string bytes = pattern(3000000);
  append_in_pieces(block, bytes, 32768);
  const std::size_t reserved = block.reserved_bytes();
  EXPECT_EQ(block.take().capacity(), reserved);
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
  for (int i = 0; i < 80; ++i) {
    block.append(piece, kMost);
    EXPECT_LE(block.reserved_bytes(), std::min((GrowingBlock::kGrowth + 1) * block.size(),
                                               block.size() + GrowingBlock::kChunkBytes));
  }
}

// A string that doubles would move half of what came at once, and the piece at hand would wait.
TEST(GrowingBlock, NoPieceWaitsForMoreThanAQuarterOfAChunkToMove) {
  const std::string piece(1 << 16, 'x');
  GrowingBlock block;
  std::size_t capacity = 0;
  while (block.size() < 3 * GrowingBlock::kChunkBytes) {
    const std::size_t held = block.size();
    block.append(piece, kMost);
    const bool first_chunk = held < GrowingBlock::kChunkBytes;
    if (first_chunk && block.reserved_bytes() != capacity) {
      EXPECT_LE(held, GrowingBlock::kChunkBytes / 4);
    }
    capacity = block.reserved_bytes();
  }
}

TEST(GrowingBlock, WrongTotalsDoNoHarm) {
  for (const std::size_t total : {std::size_t{0}, std::size_t{1}, std::size_t{150}, kMost}) {
    GrowingBlock block(100);
    for (int i = 0; i < 10; ++i) block.append(pattern(33), total);
    EXPECT_EQ(block.take().size(), 330u);
  }
}

TEST(GrowingBlock, ClearForgetsEverything) {
  GrowingBlock block(100);
  block.append(pattern(250), 300);
  block.clear();
  EXPECT_EQ(block.size(), 0u);
  block.append("x", 1);
  EXPECT_EQ(block.take(), "x");
}

}  // namespace
