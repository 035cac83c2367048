// Large blocks cut into pieces, and joined again.

#include <gtest/gtest.h>
#include <tests/pattern.h>
#include <tests/transport/fake_system_calls.h>
#include <tolk/TolkParams.h>
#include <tolk/TolkValue.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "transport/piece_assembler.h"
#include "transport/piece_sender.h"
#include "transport/reserved_names.h"

namespace {

using tolk::PieceAssembler;
using tolk::test::pattern;

// One piece as the peer sees it.
struct Sent {
  bool marked;
  int call_id;
  int total;
  std::string bytes;
};

Sent read(TolkParams& piece) {
  EXPECT_TRUE(piece.ToParams());
  EXPECT_EQ(piece.ParamsSize(), 2);
  EXPECT_EQ(piece.MapSize(), 2);
  long size = 0;
  const char* const data = piece.GetValue(1)->GetStream(size);
  return {piece.GetMap(tolk::kKeyLargeData)->GetBool(), piece.GetMap(tolk::kKeyCallId)->GetInt(),
          piece.GetValue(0)->GetInt(), std::string(data, static_cast<std::size_t>(size))};
}

class Pieces : public testing::Test {
 protected:
  ~Pieces() override { tolk::piece_bytes() = tolk::kDefaultPieceBytes; }

  // What goes out for `block`.
  std::vector<Sent> send(std::string_view block, int call_id = 9) {
    std::vector<Sent> sent;
    EXPECT_TRUE(tolk::send_in_pieces(block, call_id, [&](TolkParams& piece) {
      sent.push_back(read(piece));
      return true;
    }));
    return sent;
  }
  std::vector<std::size_t> sizes_of(std::string_view block) {
    std::vector<std::size_t> sizes;
    for (const Sent& piece : send(block)) sizes.push_back(piece.bytes.size());
    return sizes;
  }

  PieceAssembler assembler;
};
using Sizes = std::vector<std::size_t>;

TEST_F(Pieces, BlocksAreCutAtThePieceSize) {
  EXPECT_EQ(sizes_of(pattern(0)), Sizes{0});
  EXPECT_EQ(sizes_of(pattern(1)), Sizes{1});
  EXPECT_EQ(sizes_of(pattern(32767)), Sizes{32767});
  EXPECT_EQ(sizes_of(pattern(32768)), Sizes{32768});
  EXPECT_EQ(sizes_of(pattern(32769)), (Sizes{32768, 1}));
  EXPECT_EQ(sizes_of(pattern(98304)), (Sizes{32768, 32768, 32768}));
  EXPECT_EQ(sizes_of(pattern(98305)), (Sizes{32768, 32768, 32768, 1}));
}

TEST_F(Pieces, EveryPieceNamesCallIdAndTotal) {
  tolk::piece_bytes() = 10;
  const std::vector<Sent> sent = send(pattern(25), -3);
  ASSERT_EQ(sent.size(), 3u);
  for (const Sent& piece : sent) {
    EXPECT_TRUE(piece.marked);
    EXPECT_EQ(piece.call_id, -3);
    EXPECT_EQ(piece.total, 25);
  }
}

TEST_F(Pieces, PieceSizeOfTheProcessIsUsed) {
  tolk::piece_bytes() = 10;
  EXPECT_EQ(sizes_of(pattern(10)), Sizes{10});
  EXPECT_EQ(sizes_of(pattern(11)), (Sizes{10, 1}));
  tolk::piece_bytes() = 1;
  EXPECT_EQ(sizes_of(pattern(3)), (Sizes{1, 1, 1}));
}

TEST_F(Pieces, PieceSizeThatCannotBeSentInCountsAsTheDefault) {
  for (const int size : {0, -1, std::numeric_limits<int>::min()}) {
    tolk::piece_bytes() = size;
    EXPECT_EQ(sizes_of(pattern(32769)), (Sizes{32768, 1}));
  }
}

TEST_F(Pieces, PieceSizeIsReadOnceATransfer) {
  tolk::piece_bytes() = 10;
  Sizes sizes;
  const std::string block = pattern(30);
  EXPECT_TRUE(tolk::send_in_pieces(block, 1, [&](TolkParams& piece) {
    sizes.push_back(read(piece).bytes.size());
    tolk::piece_bytes() = 1;
    return true;
  }));
  EXPECT_EQ(sizes, (Sizes{10, 10, 10}));
}

TEST_F(Pieces, FirstPieceWithoutAnAnswerEndsTheTransfer) {
  tolk::piece_bytes() = 10;
  int sent = 0;
  const std::string block = pattern(50);
  EXPECT_FALSE(tolk::send_in_pieces(block, 1, [&](TolkParams&) { return ++sent < 2; }));
  EXPECT_EQ(sent, 2);
}

TEST_F(Pieces, TransferFailsWhenItsLastPieceGetsNoAnswer) {
  EXPECT_FALSE(tolk::send_in_pieces("abc", 1, [](TolkParams&) { return false; }));
}

TEST_F(Pieces, BlockBeyondThe32BitTotalIsNotSentAtAll) {
  const std::size_t too_large = std::size_t{std::numeric_limits<std::int32_t>::max()} + 1;
  bool sent = false;
  const std::string_view never_read("", too_large);
  EXPECT_FALSE(tolk::send_in_pieces(never_read, 1, [&](TolkParams&) { return sent = true; }));
  EXPECT_FALSE(sent);
}

TEST_F(Pieces, LargestTotalOf32BitsFits) {
  const std::size_t largest = std::numeric_limits<std::int32_t>::max();
  EXPECT_TRUE(tolk::fits_pieces(std::string_view("", largest)));
  EXPECT_FALSE(tolk::fits_pieces(std::string_view("", largest + 1)));
}

TEST_F(Pieces, EndOfReadingIsToldBeforeTheLastPiece) {
  tolk::piece_bytes() = 10;
  std::string block = pattern(25);
  std::vector<std::string> events;
  EXPECT_TRUE(tolk::send_in_pieces(
      block, 1,
      [&](TolkParams& piece) {
        events.push_back(std::to_string(read(piece).bytes.size()));
        return true;
      },
      [&] {
        events.emplace_back("all read");
        std::string().swap(block);  // the last piece holds its own bytes
      }));
  EXPECT_EQ(events, (std::vector<std::string>{"10", "10", "all read", "5"}));
}

TEST_F(Pieces, TransferThatFailsEarlyNeverReadsToTheEnd) {
  tolk::piece_bytes() = 10;
  const std::string block = pattern(25);
  bool all_read = false;
  EXPECT_FALSE(tolk::send_in_pieces(
      block, 1, [](TolkParams&) { return false; }, [&] { all_read = true; }));
  EXPECT_FALSE(all_read);
}

// A received piece. What is not given is left out.
struct Piece {
  std::optional<int> call_id = 9;
  std::optional<int> total;
  std::optional<std::string> bytes;
};

std::optional<PieceAssembler::Joined> give(PieceAssembler& assembler, const Piece& piece) {
  TolkParams block;
  if (piece.call_id) block.AddKeyValueInt(tolk::kKeyCallId, *piece.call_id);
  if (piece.total) block.AddInt(*piece.total);
  if (piece.bytes) block.AddStream(piece.bytes->data(), static_cast<long>(piece.bytes->size()));
  EXPECT_TRUE(block.ToParams());
  return assembler.add(block);
}

std::optional<PieceAssembler::Joined> give(PieceAssembler& assembler,
                                           const std::function<void(TolkParams&)>& fill) {
  TolkParams block;
  fill(block);
  EXPECT_TRUE(block.ToParams());
  return assembler.add(block);
}

TEST_F(Pieces, SentPiecesAreJoinedToTheSameBytes) {
  for (const std::size_t size : {0u, 1u, 32767u, 32768u, 32769u, 3u * 32768u, 3u * 32768u + 5u}) {
    const std::string block = pattern(size);
    std::optional<PieceAssembler::Joined> joined;
    EXPECT_TRUE(tolk::send_in_pieces(block, 4, [&](TolkParams& piece) {
      EXPECT_FALSE(joined) << "complete before its last piece";
      EXPECT_TRUE(piece.ToParams());
      joined = assembler.add(piece);
      return true;
    }));
    ASSERT_TRUE(joined) << size;
    EXPECT_EQ(joined->call_id, 4);
    EXPECT_TRUE(joined->bytes.view == block) << size;
  }
}

TEST_F(Pieces, CallIdsAreJoinedApart) {
  EXPECT_FALSE(give(assembler, {1, 4, "ab"}));
  EXPECT_FALSE(give(assembler, {2, 4, "AB"}));
  EXPECT_EQ(give(assembler, {1, 4, "cd"})->bytes.view, "abcd");
  EXPECT_EQ(give(assembler, {2, 4, "CD"})->bytes.view, "ABCD");
}

TEST_F(Pieces, CompletedBlockLeavesNothingBehind) {
  EXPECT_TRUE(give(assembler, {1, 2, "ab"}));
  EXPECT_FALSE(give(assembler, {1, 4, "ab"}));
}

TEST_F(Pieces, MoreBytesThanTheTotalAreHandedOutWhole) {
  EXPECT_EQ(give(assembler, {1, 3, "abcde"})->bytes.view, "abcde");
}

TEST_F(Pieces, TotalOfZeroOrLessIsCompleteAtOnce) {
  EXPECT_EQ(give(assembler, {1, 0, ""})->bytes.view, "");
  EXPECT_EQ(give(assembler, {1, -5, "ab"})->bytes.view, "ab");
  EXPECT_EQ(give(assembler, {1, std::numeric_limits<int>::min(), ""})->bytes.view, "");
}

TEST_F(Pieces, LatestTotalCounts) {
  EXPECT_FALSE(give(assembler, {1, 100, "ab"}));
  EXPECT_EQ(give(assembler, {1, 3, "c"})->bytes.view, "abc");
}

TEST_F(Pieces, PieceOfAnAbandonedCallIsJoinedToTheNextOfItsId) {
  EXPECT_FALSE(give(assembler, {1, 100, "old"}));
  EXPECT_FALSE(give(assembler, {1, 6, "ab"}));
  EXPECT_EQ(give(assembler, {1, 6, "c"})->bytes.view, "oldabc");
}

TEST_F(Pieces, PiecesThatNothingWasAddedToForAMinuteAreDropped) {
  tolk::test::FakeSystemCalls world;
  world.tick = 0xFFFF'FF00;  // the tick wraps meanwhile
  EXPECT_FALSE(give(assembler, {1, 100, "old"}));
  world.tick += 60'000;
  EXPECT_FALSE(give(assembler, {1, 100, "er"}));
  world.tick += 60'000;
  EXPECT_EQ(give(assembler, {1, 6, "!"})->bytes.view, "older!");
  EXPECT_FALSE(give(assembler, {1, 100, "old"}));
  world.tick += 60'001;
  EXPECT_EQ(give(assembler, {1, 3, "new"})->bytes.view, "new");
}

TEST_F(Pieces, HugeTotalOfATinyPieceIsOnlyWaitedFor) {
  EXPECT_FALSE(give(assembler, {1, std::numeric_limits<int>::max(), "a"}));
  EXPECT_EQ(give(assembler, {1, 2, "b"})->bytes.view, "ab");
}

TEST_F(Pieces, PieceWithoutBytesIsEmpty) {
  EXPECT_FALSE(give(assembler, {1, 2, std::nullopt}));
  EXPECT_EQ(give(assembler, {1, 0, std::nullopt})->bytes.view, "");
}

TEST_F(Pieces, MalformedPieceChangesNothing) {
  EXPECT_FALSE(give(assembler, {1, 4, "ab"}));
  const std::vector<std::function<void(TolkParams&)>> malformed = {
      [](TolkParams&) {},
      [](TolkParams& block) { block.AddKeyValueInt(tolk::kKeyCallId, 1); },
      [](TolkParams& block) {
        block.AddInt(2);
        block.AddStream("x", 1);
      },
      [](TolkParams& block) {
        block.AddKeyValueString(tolk::kKeyCallId, "1");
        block.AddInt(2);
        block.AddStream("x", 1);
      },
      [](TolkParams& block) {
        block.AddKeyValueInt(tolk::kKeyCallId, 1);
        block.AddString("2");
        block.AddStream("x", 1);
      },
      [](TolkParams& block) {
        block.AddKeyValueInt(tolk::kKeyCallId, 1);
        block.AddStream("x", 1);
        block.AddInt(2);
      },
      [](TolkParams& block) {
        block.AddKeyValueInt(tolk::kKeyCallId, 1);
        block.AddInt(2);
        block.AddString("x");
      },
      [](TolkParams& block) {
        block.AddKeyValueInt(tolk::kKeyCallId, 1);
        block.AddInt(2);
        block.AddInt(3);
      },
      [](TolkParams& block) {
        block.AddKeyValueDouble(tolk::kKeyCallId, 1);
        block.AddBool(true);
        block.AddStream("x", 1);
      }};
  for (const auto& fill : malformed) EXPECT_FALSE(give(assembler, fill));
  EXPECT_EQ(give(assembler, {1, 4, "cd"})->bytes.view, "abcd");
}

TEST_F(Pieces, PiecesOfManyThreadsAreJoinedApart) {
  std::vector<std::thread> threads;
  for (int id = 1; id <= 4; ++id) {
    threads.emplace_back([this, id] {
      for (int round = 0; round < 100; ++round) {
        const auto letter = static_cast<char>('a' + id);
        std::optional<PieceAssembler::Joined> joined;
        for (int i = 0; i < 10; ++i) joined = give(assembler, {id, 10, std::string(1, letter)});
        ASSERT_TRUE(joined);
        EXPECT_EQ(joined->bytes.view, std::string(10, letter));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
