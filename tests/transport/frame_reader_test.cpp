#include "transport/frame_reader.h"

#include <gtest/gtest.h>
#include <tests/params/hex.h>
#include <tests/pattern.h>
#include <tests/transport/naive_frame_reader.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <new>
#include <random>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tests/one_of.h"

namespace {

using tolk::FrameReader;
using tolk::test::hex;
using tolk::test::NaiveFrameReader;
using tolk::test::pattern;
using tolk::test::to_hex;
using Payloads = std::vector<std::string>;

std::string frame(std::string_view payload) {
  std::string bytes;
  for (unsigned i = 0; i < 4; ++i) bytes += static_cast<char>(payload.size() >> (8 * i));
  return bytes.append(payload);
}

// A reader and what it has handed on.
class Connection {
 public:
  explicit Connection(std::size_t large_bytes = FrameReader::kLargeBytes) : reader_(large_bytes) {}
  explicit Connection(const tolk::StreamRules& rules, std::size_t large_bytes = 64)
      : reader_(large_bytes) {
    reader_.follow(rules);
  }

  // In memory of exactly that size, so that the sanitizer sees any read behind it.
  void read(std::string_view bytes) {
    const auto exact = std::make_unique<char[]>(bytes.size());
    bytes.copy(exact.get(), bytes.size());
    feed({exact.get(), bytes.size()});
  }

  // Where the reader wants it, as far as that reaches. How much was read.
  std::size_t read_in_place(std::string_view bytes) {
    const std::span<char> room = reader_.room();
    if (room.empty()) {
      read(bytes);
      return bytes.size();
    }
    const std::size_t size = bytes.copy(room.data(), room.size());
    feed({room.data(), size});
    return size;
  }

  std::size_t waiting() const { return reader_.pending_bytes(); }
  std::size_t reserved() const { return reader_.reserved_bytes(); }
  bool offers_room() { return !reader_.room().empty(); }

  Payloads payloads;
  std::vector<std::shared_ptr<const void>> owners;
  std::size_t wanted = SIZE_MAX;
  bool broken = false;

 private:
  void feed(std::string_view bytes) {
    broken = !reader_.feed(bytes, [this](const tolk::SharedBytes& payload) {
      payloads.emplace_back(payload.view);
      owners.push_back(payload.owner);
      return payloads.size() < wanted;
    });
  }

  FrameReader reader_;
};

TEST(FrameReader, ReadOfOneFrameIsDispatchedOnceAndNothingWaits) {
  Connection connection;
  connection.read(frame("hello"));
  EXPECT_EQ(connection.payloads, Payloads{"hello"});
  EXPECT_EQ(connection.waiting(), 0u);
}

TEST(FrameReader, ReadOfOneFrameIsHandedOnInPlace) {
  FrameReader reader;
  const std::string bytes = frame("hello");
  const char* seen = nullptr;
  reader.feed(bytes, [&](const tolk::SharedBytes& payload) {
    seen = payload.view.data();
    return true;
  });
  EXPECT_EQ(seen, bytes.data() + 4);
}

TEST(FrameReader, ThreeFramesInOneReadAreDispatchedInOrder) {
  Connection connection;
  connection.read(frame("one") + frame("two") + frame("three"));
  EXPECT_EQ(connection.payloads, (Payloads{"one", "two", "three"}));
  EXPECT_EQ(connection.waiting(), 0u);
}

TEST(FrameReader, FrameSplitInThreeIsDispatchedAfterTheThirdRead) {
  Connection connection;
  const std::string bytes = frame("hello");
  connection.read(bytes.substr(0, 2));
  connection.read(bytes.substr(2, 3));
  EXPECT_TRUE(connection.payloads.empty());
  EXPECT_EQ(connection.waiting(), 5u);
  connection.read(bytes.substr(5));
  EXPECT_EQ(connection.payloads, Payloads{"hello"});
  EXPECT_EQ(connection.waiting(), 0u);
}

TEST(FrameReader, SplitPrefixWaitsForWholeFrame) {
  Connection connection;
  const std::string bytes = frame("hello");
  for (std::size_t i = 0; i + 1 < bytes.size(); ++i) {
    connection.read(bytes.substr(i, 1));
    EXPECT_TRUE(connection.payloads.empty());
    EXPECT_EQ(connection.waiting(), i + 1);
  }
  connection.read(bytes.substr(bytes.size() - 1));
  EXPECT_EQ(connection.payloads, Payloads{"hello"});
}

TEST(FrameReader, StartOfTheNextFrameWaits) {
  Connection connection;
  const std::string next = frame("next");
  connection.read(frame("hello") + next.substr(0, 3));
  EXPECT_EQ(connection.payloads, Payloads{"hello"});
  EXPECT_EQ(connection.waiting(), 3u);
  connection.read(next.substr(3));
  EXPECT_EQ(connection.payloads, (Payloads{"hello", "next"}));
}

TEST(FrameReader, ReadThatIsOneFrameOvertakesBytesThatWait) {
  Connection connection;
  const std::string early = frame("early");
  connection.read(early.substr(0, 6));
  connection.read(frame("late"));
  EXPECT_EQ(connection.payloads, Payloads{"late"});
  EXPECT_EQ(connection.waiting(), 6u);
  connection.read(early.substr(6));
  EXPECT_EQ(connection.payloads, (Payloads{"late", "early"}));
  EXPECT_EQ(connection.waiting(), 0u);
}

TEST(FrameReader, ReadOfNothingChangesNothing) {
  Connection connection;
  connection.read("");
  EXPECT_EQ(connection.waiting(), 0u);
  connection.read(hex("05 00"));
  connection.read("");
  EXPECT_EQ(connection.waiting(), 2u);
  EXPECT_TRUE(connection.payloads.empty());
}

TEST(FrameReader, FramesWithoutPayloadAreDispatched) {
  Connection connection;
  connection.read(frame(""));
  connection.read(frame("") + frame(""));
  EXPECT_EQ(connection.payloads, (Payloads{"", "", ""}));
  EXPECT_EQ(connection.waiting(), 0u);
}

TEST(FrameReader, ReadShorterThanAPrefixIsNeverAFrame) {
  Connection connection;
  connection.read(frame(std::string(8, '\xFF')));
  for (std::size_t size = 1; size <= 3; ++size) {
    Connection fresh;
    // Were memory behind the read looked at, -1 to -3 could pass for its length.
    fresh.read(std::string(size, '\xFF'));
    EXPECT_TRUE(fresh.payloads.empty());
    EXPECT_EQ(fresh.waiting(), size);
  }
  connection.read(hex("FF FF FF"));
  EXPECT_EQ(connection.payloads, Payloads{std::string(8, '\xFF')});
  EXPECT_EQ(connection.waiting(), 3u);
}

TEST(FrameReader, HugeDeclaredLengthWaitsAndReservesNothing) {
  Connection connection;
  connection.read(hex("FF FF FF 7F"));
  connection.read("abc");
  EXPECT_TRUE(connection.payloads.empty());
  EXPECT_EQ(connection.waiting(), 7u);
}

// However large a frame is said to be: before a good part of it has come, it waits like any other.
TEST(FrameReader, NothingIsReservedForALengthAlone) {
  for (const char* const prefix : {"FF FF FF 7F", "00 00 00 40", "00 00 10 00", "00 40 00 00"}) {
    Connection connection;
    connection.read(hex(prefix));
    EXPECT_FALSE(connection.offers_room());
    connection.read(std::string(1000, 'x'));
    EXPECT_FALSE(connection.offers_room());
    EXPECT_LE(connection.reserved(), 4096u);
  }
}

TEST(FrameReader, SmallFrameInPartsLeavesNoMoreReservedThanIdleConnectionsMayKeep) {
  const std::string bytes = frame(std::string(15000, 'x'));
  Connection connection;
  connection.read(std::string_view(bytes).substr(0, 14000));
  connection.read(std::string_view(bytes).substr(14000));
  EXPECT_EQ(connection.payloads.size(), 1u);
  EXPECT_LE(connection.reserved(), 4096u);
}

TEST(FrameReader, LargeFrameWhosePrefixCameAloneIsReadToItsPlaceToo) {
  const std::string bytes = frame(std::string(100000, 'x'));
  for (const std::size_t first : {2u, 4u, 4000u}) {
    Connection connection;
    connection.read(std::string_view(bytes).substr(0, first));
    EXPECT_FALSE(connection.offers_room());
    connection.read(std::string_view(bytes).substr(first, 4096 - first));
    EXPECT_TRUE(connection.offers_room());
    EXPECT_EQ(connection.waiting(), 4096u);
  }
}

TEST(FrameReader, ReserveForALargeFrameFollowsTheBytesThatCame) {
  const std::string read(65536, 'x');
  Connection connection;
  connection.read(hex("FF FF FF 7F"));
  for (int i = 0; i < 640; ++i) {
    connection.read(read);
    EXPECT_LE(connection.reserved() - Connection().reserved(),
              std::max(tolk::GrowingBlock::kFirstBytes,
                       tolk::GrowingBlock::kGrowth * connection.waiting()));
  }
}

TEST(FrameReader, RestOfALargeFrameIsReadToItsPlace) {
  const std::string payload(100000, 'x');
  const std::string bytes = frame(payload) + frame("next");
  Connection connection;
  connection.read(std::string_view(bytes).substr(0, 65536));
  ASSERT_TRUE(connection.offers_room());
  EXPECT_EQ(connection.reserved(), Connection().reserved() + payload.size() + 4);
  std::string_view rest = std::string_view(bytes).substr(65536);
  EXPECT_EQ(connection.read_in_place(rest.substr(0, 10)), 10u);
  rest.remove_prefix(10);
  // No further than the frame.
  EXPECT_EQ(connection.read_in_place(rest), payload.size() + 4 - 65546);
  EXPECT_EQ(connection.payloads, Payloads{payload});
  EXPECT_FALSE(connection.offers_room());
  EXPECT_EQ(connection.reserved(), Connection().reserved());
}

TEST(FrameReader, LargeFrameStaysForItsOwner) {
  FrameReader reader;
  const std::string bytes = frame(std::string(100000, 'x'));
  tolk::SharedBytes kept;
  const auto keep = [&](tolk::SharedBytes payload) {
    kept = std::move(payload);
    return true;
  };
  reader.feed(std::string_view(bytes).substr(0, 50000), keep);
  reader.feed(std::string_view(bytes).substr(50000), keep);
  reader.feed(frame("next") + frame("and one more"), [](const tolk::SharedBytes&) { return true; });
  ASSERT_TRUE(kept.owner);
  EXPECT_TRUE(kept.view == std::string_view(bytes).substr(4));
}

TEST(FrameReader, ReadThatIsOneFrameOvertakesALargeFrameInItsPlaceToo) {
  const std::string payload(100000, 'x');
  const std::string bytes = frame(payload);
  Connection connection;
  connection.read(std::string_view(bytes).substr(0, 65536));
  connection.read_in_place(frame("late"));
  EXPECT_EQ(connection.payloads, Payloads{"late"});
  EXPECT_EQ(connection.waiting(), 65536u);
  connection.read_in_place(std::string_view(bytes).substr(65536));
  EXPECT_EQ(connection.payloads, (Payloads{"late", payload}));
}

TEST(FrameReader, LargeFramesInARowArriveWhole) {
  std::string stream;
  Payloads sent;
  for (std::size_t i = 0; i < 40; ++i) {
    sent.push_back(pattern(5000 * i));
    stream += frame(sent.back()) + frame("small");
    sent.emplace_back("small");
  }
  for (const std::size_t step : {std::size_t{1000}, std::size_t{4096}, std::size_t{65536}}) {
    Connection connection;
    for (std::string_view rest = stream; !rest.empty();) {
      rest.remove_prefix(connection.read_in_place(rest.substr(0, step)));
    }
    EXPECT_TRUE(connection.payloads == sent) << step;
    EXPECT_EQ(connection.waiting(), 0u);
  }
}

TEST(FrameReader, LengthOfMinusOneToMinusThreeMovesByWhatIsLeftOfThePrefix) {
  for (int length = -1; length >= -3; --length) {
    const std::size_t covered = 4 - static_cast<std::size_t>(-length);
    // The bytes that stay behind are the start of the next frame, which the rest completes.
    std::string bytes = hex("00 FF FF FF");
    bytes[0] = static_cast<char>(length);
    Connection connection;
    connection.read(bytes);
    EXPECT_EQ(connection.payloads, Payloads{""});
    EXPECT_EQ(connection.waiting(), 4 - covered);
  }
}

TEST(FrameReader, LengthOfMinusFourDropsAllThatWaits) {
  Connection connection;
  connection.read(hex("FC FF FF FF") + frame("lost"));
  EXPECT_EQ(connection.payloads, Payloads{""});
  EXPECT_EQ(connection.waiting(), 0u);
}

TEST(FrameReader, LengthBelowMinusFourDropsAllThatWaits) {
  for (const char* const prefix : {"FB FF FF FF", "00 00 00 80", "00 FF FF FF"}) {
    Connection connection;
    connection.read(hex(prefix) + frame("lost"));
    EXPECT_EQ(connection.payloads, Payloads{""});
    EXPECT_EQ(connection.waiting(), 0u);
    connection.read(frame("next"));
    EXPECT_EQ(connection.payloads, (Payloads{"", "next"}));
  }
}

TEST(FrameReader, NegativeLengthBehindAFrameStillDeliversTheFrame) {
  Connection connection;
  connection.read(frame("first") + hex("FC FF FF FF 00"));
  EXPECT_EQ(connection.payloads, (Payloads{"first", ""}));
  EXPECT_EQ(connection.waiting(), 0u);
}

TEST(FrameReader, NoFurtherFrameIsHandedOnOnceDispatchSaysNo) {
  Connection connection;
  connection.wanted = 2;
  connection.read(frame("one") + frame("two") + frame("three"));
  EXPECT_EQ(connection.payloads, (Payloads{"one", "two"}));
}

TEST(FrameReader, NoFurtherFrameIsHandedOnOnceDispatchHasRefusedALargeOne) {
  const std::string bytes = frame(std::string(100000, 'x')) + frame("next");
  Connection connection;
  connection.wanted = 1;
  connection.read(std::string_view(bytes).substr(0, 50000));
  connection.read(std::string_view(bytes).substr(50000));
  EXPECT_EQ(connection.payloads.size(), 1u);
}

TEST(FrameReader, NoFurtherFrameIsHandedOnOnceDispatchHasRefusedANegativeLength) {
  Connection connection;
  connection.wanted = 1;
  // It moves by one byte, to another negative length.
  connection.read(hex("FD FF FF FF FF"));
  EXPECT_EQ(connection.payloads, Payloads{""});
}

TEST(FrameReader, ThrowingDispatchLeavesTheReaderUsable) {
  FrameReader reader;
  const auto refuse = [](const tolk::SharedBytes&) -> bool { throw std::bad_alloc(); };
  EXPECT_THROW(reader.feed(frame("one") + frame("two"), refuse), std::bad_alloc);
  Payloads payloads;
  reader.feed(frame("three"), [&](const tolk::SharedBytes& payload) {
    payloads.emplace_back(payload.view);
    return true;
  });
  EXPECT_EQ(payloads, Payloads{"three"});
}

TEST(FrameReader, ManyBytesArriveWholeWhateverTheReadSize) {
  std::string stream;
  Payloads sent;
  for (std::size_t i = 0; i < 200; ++i) {
    sent.emplace_back(i * i, static_cast<char>('a' + i % 26));
    stream += frame(sent.back());
  }
  for (const std::size_t step : {std::size_t{7}, std::size_t{4096}, std::size_t{65536}}) {
    NaiveFrameReader naive;
    Payloads expected;
    Connection connection;
    for (std::size_t at = 0; at < stream.size(); at += step) {
      const std::string_view read = std::string_view(stream).substr(at, step);
      connection.read(read);
      for (std::string& payload : naive.feed(read)) expected.push_back(std::move(payload));
    }
    EXPECT_EQ(connection.payloads, expected);
    EXPECT_EQ(connection.payloads, sent);
    EXPECT_EQ(connection.waiting(), 0u);
  }
}

// Both readers get the same reads: the same payloads come after each, and as many bytes wait.
void expect_as_naive(Connection connection, bool in_place,
                     const std::vector<std::string_view>& reads) {
  NaiveFrameReader naive;
  std::string so_far;
  for (std::string_view rest : reads) {
    while (!rest.empty()) {
      connection.payloads.clear();
      if (!in_place) connection.read(rest);
      const std::size_t size = in_place ? connection.read_in_place(rest) : rest.size();
      const std::string_view read = rest.substr(0, size);
      so_far += "[" + to_hex(read) + "] ";
      ASSERT_EQ(connection.payloads, naive.feed(read)) << so_far;
      ASSERT_EQ(connection.waiting(), naive.waiting_bytes()) << so_far;
      rest.remove_prefix(size);
    }
  }
}

// The same with frames that count as large from a few bytes on, read where the reader wants them
// and elsewhere.
void expect_as_naive(const std::vector<std::string_view>& reads) {
  expect_as_naive(Connection(), false, reads);
  for (const std::size_t large_bytes : {0u, 1u, 3u, 8u, 20u}) {
    for (const bool in_place : {true, false}) {
      expect_as_naive(Connection(large_bytes), in_place, reads);
      if (testing::Test::HasFatalFailure()) return;
    }
  }
}

// Bit i of `cuts` says whether a read ends behind byte i.
std::vector<std::string_view> cut(std::string_view stream, unsigned cuts) {
  std::vector<std::string_view> reads;
  std::size_t start = 0;
  for (std::size_t i = 0; i < stream.size(); ++i) {
    const bool ends = i + 1 == stream.size() || (cuts >> i & 1) != 0;
    if (!ends) continue;
    reads.push_back(stream.substr(start, i + 1 - start));
    start = i + 1;
  }
  return reads;
}

TEST(FrameReader, EverySplitGivesWhatTheNaiveReaderGives) {
  const std::vector<std::string> streams = {
      frame("abcdefgh"),
      frame("a") + frame("bcd"),
      frame("") + frame("") + frame("x"),
      frame("abcd") + hex("01 00 00"),
      frame("a") + hex("FF FF FF FF") + frame(""),
      hex("FE FF FF FF 00 00 00 61 FD FF FF FF"),
      hex("FC FF FF FF 01 00 00 00 61"),
      frame("b") + hex("F0 FF FF FF 61 62 63"),
      hex("02 00 00 00 01 00 00 00 00 00 00 00"),
      hex("FF FF FF FF 7F 00 00 00 00"),
  };
  for (const std::string& stream : streams) {
    ASSERT_LE(stream.size(), 14u);
    for (unsigned cuts = 0; cuts < 1u << (stream.size() - 1); cuts += tolk::test::one_of()) {
      expect_as_naive(cut(stream, cuts));
      if (HasFatalFailure()) return;
    }
  }
}

TEST(FrameReader, RandomStreamsGiveWhatTheNaiveReaderGives) {
  for (unsigned seed = 0; seed < 3000; seed += tolk::test::one_of()) {
    std::mt19937 random(seed);
    const auto below = [&](std::size_t limit) { return random() % limit; };
    std::string stream;
    for (auto frames = below(6) + 1; frames > 0; --frames) {
      stream += frame(std::string(below(20), static_cast<char>(below(256))));
      if (below(8) == 0) stream += hex("FF FF FF FF").substr(below(4));
      if (below(8) == 0) stream[below(stream.size())] = '\x01';
    }
    std::vector<std::string_view> reads;
    for (std::size_t at = 0; at < stream.size(); at += reads.back().size()) {
      reads.push_back(std::string_view(stream).substr(at, below(12) + 1));
    }
    expect_as_naive(reads);
    ASSERT_FALSE(HasFatalFailure()) << "seed " << seed;
  }
}

// Strict rules.

constexpr tolk::StreamRules kStrict{true, 100};

std::string with_length(std::int32_t length) {
  std::string bytes;
  for (unsigned i = 0; i < 4; ++i) {
    bytes += static_cast<char>(static_cast<std::uint32_t>(length) >> (8 * i));
  }
  return bytes;
}

TEST(StrictFrames, ReadThatIsOneFrameIsHandedOnInPlace) {
  FrameReader reader;
  reader.follow(kStrict);
  const std::string bytes = frame("hello");
  const char* seen = nullptr;
  EXPECT_TRUE(reader.feed(bytes, [&](const tolk::SharedBytes& payload) {
    seen = payload.view.data();
    return true;
  }));
  EXPECT_EQ(seen, bytes.data() + 4);
}

// What looks like one frame is the middle of another.
TEST(StrictFrames, NothingOvertakesBytesThatWait) {
  for (const std::size_t large : {std::size_t{16}, std::size_t{1000}}) {
    Connection connection(kStrict, large);
    const std::string inner = frame("inner");
    const std::string outer = frame("early" + inner + "late");
    connection.read(outer.substr(0, 9));
    connection.read(inner);
    EXPECT_TRUE(connection.payloads.empty());
    connection.read(outer.substr(9 + inner.size()));
    EXPECT_EQ(connection.payloads, Payloads{outer.substr(4)});
    EXPECT_FALSE(connection.broken);
  }
}

TEST(StrictFrames, NegativeLengthBreaksTheStreamWhereverItIsCut) {
  for (const std::int32_t length : {-1, -4, -5, std::numeric_limits<std::int32_t>::min()}) {
    const std::string bytes = frame("good") + with_length(length) + frame("never");
    for (std::size_t cut = 1; cut <= bytes.size(); ++cut) {
      Connection connection(kStrict);
      connection.read(bytes.substr(0, cut));
      EXPECT_EQ(connection.broken, cut >= 12) << cut;
      connection.read(bytes.substr(cut));
      EXPECT_TRUE(connection.broken);
      EXPECT_EQ(connection.payloads, Payloads{"good"});
    }
  }
}

TEST(StrictFrames, LengthAboveTheBoundBreaksTheStreamBeforeAnythingIsKept) {
  Connection connection(kStrict);
  connection.read(frame(std::string(100, 'x')));
  EXPECT_FALSE(connection.broken);
  connection.read(with_length(101));
  EXPECT_TRUE(connection.broken);
  EXPECT_EQ(connection.waiting(), 0u);
  connection.read(frame("never"));
  EXPECT_TRUE(connection.broken);
  EXPECT_EQ(connection.payloads, Payloads{std::string(100, 'x')});
}

TEST(StrictFrames, BoundHoldsForAFrameWhoseLengthComesInParts) {
  Connection connection(kStrict);
  const std::string length = with_length(101);
  connection.read(length.substr(0, 3));
  EXPECT_FALSE(connection.broken);
  connection.read(length.substr(3));
  EXPECT_TRUE(connection.broken);
  EXPECT_FALSE(connection.offers_room());
}

TEST(StrictFrames, AnyCutGivesTheSamePayloads) {
  const Payloads payloads{"", "one", pattern(70), "", pattern(100), "last"};
  std::string bytes;
  for (const std::string& payload : payloads) bytes += frame(payload);
  for (std::size_t part = 1; part <= bytes.size(); ++part) {
    Connection connection(kStrict);
    for (std::size_t at = 0; at < bytes.size();) {
      at += connection.read_in_place(std::string_view(bytes).substr(at, part));
    }
    EXPECT_EQ(connection.payloads, payloads) << part;
    EXPECT_EQ(connection.waiting(), 0u);
  }
}

TEST(StreamRules, DefaultsBreakNothing) {
  Connection connection;
  connection.read(with_length(-1) + frame("good"));
  EXPECT_FALSE(connection.broken);
  connection.read(with_length(std::numeric_limits<std::int32_t>::max()));
  EXPECT_FALSE(connection.broken);
}

}  // namespace
