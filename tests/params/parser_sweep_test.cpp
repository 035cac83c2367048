// The parser against a second, naive one: over every prefix, every changed byte, and random blocks.

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <set>
#include <string>
#include <string_view>

#include "params/content.h"
#include "params/encoder.h"
#include "params/parser.h"
#include "tests/one_of.h"
#include "tests/params/block_text.h"
#include "tests/params/hex.h"
#include "tests/params/naive_parser.h"

namespace {

using tolk::test::NaiveParser;
using tolk::test::to_hex;
using BlockEncoder = tolk::Encoder<std::string>;

// In memory of exactly that size, so that the sanitizer sees any read behind it.
void expect_as_naive(std::string_view bytes) {
  const auto exact = std::make_unique<char[]>(bytes.size());
  bytes.copy(exact.get(), bytes.size());
  tolk::IgnoringSink nothing;
  const bool verdict = tolk::parse_records({exact.get(), bytes.size()}, nothing);
  TolkParams block;
  EXPECT_EQ(block.Parser(exact.get(), static_cast<int>(bytes.size())), verdict);
  ASSERT_EQ(tolk::test::block_text(verdict, block), NaiveParser(bytes).text()) << to_hex(bytes);
}

// Makes blocks of random records, most of them well formed.
class RandomBlocks {
 public:
  explicit RandomBlocks(unsigned seed) : random_(seed) {}

  std::string well_formed() {
    std::string bytes;
    for (int left = below(8); left > 0; --left) add_record(bytes);
    return bytes;
  }

  std::string damaged() {
    std::string bytes = well_formed();
    for (int left = 1 + below(3); left > 0 && !bytes.empty(); --left) damage(bytes);
    return bytes;
  }

 private:
  int below(int limit) { return std::uniform_int_distribution<int>(0, limit - 1)(random_); }

  std::string text() {
    std::string made;
    for (int left = below(4); left > 0; --left) made += "ab\0c"[below(4)];
    return made;
  }

  // Few different ones, so that duplicates and keys cut at a zero byte are frequent.
  std::string key() {
    static const std::string keys[] = {"", "a", "b", {"a\0b", 3}, {"\0", 1}, "ab"};
    return keys[below(6)];
  }

  void add_scalar(BlockEncoder& to) {
    switch (below(5)) {
      case 0:
        return to.add_int(below(1000) - 500);
      case 1:
        return to.add_bool(below(2) == 1);
      case 2:
        return to.add_double(below(100) / 4.0);
      case 3:
        return to.add_string(text());
      default:
        return to.add_stream(text());
    }
  }

  void add_record(std::string& bytes) {
    BlockEncoder to(bytes, 0);
    const int kind = below(8);
    if (kind < 4) return add_scalar(to);
    const bool keyed = kind < 6;
    if (keyed || kind == 7) {
      if (!keyed) append_map_header(bytes);
      for (int left = keyed ? 1 : below(4); left > 0; --left) {
        to.add_key(key());
        if (below(10) > 0) add_scalar(to);
      }
      return;
    }
    const int count = below(4);
    to.add_list_header(static_cast<std::uint32_t>(count + (below(5) == 0 ? below(3) - 1 : 0)));
    for (int left = count; left > 0; --left) add_scalar(to);
  }

  void append_map_header(std::string& bytes) {
    bytes += '\x07';
    bytes += static_cast<char>(below(4));
    bytes.append(3, below(20) == 0 ? '\x7F' : '\0');
  }

  void damage(std::string& bytes) {
    const auto at = static_cast<std::size_t>(below(static_cast<int>(bytes.size())));
    switch (below(5)) {
      case 0:
        bytes.resize(at);
        return;
      case 1:
        bytes[at] = static_cast<char>(below(256));
        return;
      case 2:
        bytes[at] = static_cast<char>(below(9));
        return;
      case 3:
        bytes.erase(at, 1);
        return;
      default:
        bytes[at] = static_cast<char>(bytes[at] + 1);
        return;
    }
  }

  std::mt19937 random_;
};

// Every kind of record once, lists and maps included.
std::string one_of_each() {
  std::string bytes;
  BlockEncoder to(bytes, 0);
  to.add_int(7);
  to.add_bool(true);
  to.add_double(1.5);
  to.add_string("text");
  to.add_stream(std::string_view("a\0b", 3));
  to.add_key("key");
  to.add_string("value");
  to.add_key("number");
  to.add_int(1);
  to.add_list_header(2);
  to.add_bool(false);
  to.add_string("x");
  bytes += tolk::test::hex("07 02000000");
  to.add_key("a");
  to.add_int(1);
  to.add_key("key");
  to.add_stream("y");
  to.add_bool(true);
  return bytes;
}

// The prefixes that are whole blocks themselves: those that end where a top-level record ends.
std::set<std::size_t> record_ends(const std::string& bytes) {
  std::set<std::size_t> ends = {0};
  for (std::size_t size = 1; size <= bytes.size(); ++size) {
    if (NaiveParser(std::string_view(bytes).substr(0, size)).ok) ends.insert(size);
  }
  return ends;
}

TEST(ParserSweep, PrefixesAreWellFormedExactlyAtRecordEnds) {
  const std::string bytes = one_of_each();
  const std::set<std::size_t> expected = {0, 9, 15, 28, 41, 53, 80, 105, 126, 174, 180};
  EXPECT_EQ(record_ends(bytes), expected);
  for (std::size_t size = 0; size <= bytes.size(); ++size) {
    expect_as_naive(std::string_view(bytes).substr(0, size));
  }
}

TEST(ParserSweep, EveryValueOfEveryByte) {
  std::string bytes = one_of_each();
  for (char& byte : bytes) {
    const char original = byte;
    for (unsigned value = 0; value < 256; value += tolk::test::one_of()) {
      byte = static_cast<char>(value);
      tolk::IgnoringSink nothing;
      ASSERT_EQ(tolk::parse_records(bytes, nothing), NaiveParser(bytes).ok) << to_hex(bytes);
    }
    byte = original;
  }
}

TEST(ParserSweep, EveryByteChangedByOne) {
  std::string bytes = one_of_each();
  for (char& byte : bytes) {
    const char original = byte;
    for (const int step : {1, -1}) {
      byte = static_cast<char>(original + step);
      expect_as_naive(bytes);
    }
    byte = original;
  }
}

TEST(ParserSweep, RandomBlocksAreReadAsTheNaiveParserDoes) {
  for (unsigned seed = 1; seed <= 4000; seed += tolk::test::one_of()) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    RandomBlocks blocks(seed);
    expect_as_naive(blocks.well_formed());
    expect_as_naive(blocks.damaged());
    if (HasFatalFailure()) return;
  }
}

TEST(ParserSweep, RandomBytesAreReadAsTheNaiveParserDoes) {
  std::mt19937 random(2026);
  for (unsigned round = 0; round < 2000; round += tolk::test::one_of()) {
    std::string bytes(random() % 40, '\0');
    for (char& byte : bytes) byte = static_cast<char>(random() % (round % 2 == 0 ? 8 : 256));
    expect_as_naive(bytes);
    if (HasFatalFailure()) return;
  }
}

}  // namespace
