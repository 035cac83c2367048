// Received bytes as blocks of the C interface: what is malformed, what is hostile.

#include <gtest/gtest.h>
#include <tolk/TolkParams.h>
#include <tolk/c.h>

#include <cstdint>
#include <random>
#include <string>
#include <string_view>

#include "capi/block.h"
#include "params/encoder.h"
#include "tests/capi/c_block.h"
#include "tests/capi/c_block_text.h"
#include "tests/params/block_text.h"
#include "tests/params/hex.h"

namespace tolk::test {
namespace {

using namespace std::string_literals;

// Every kind of record, a key twice, and keys with zero bytes.
std::string every_record() {
  return hex(
      "00 07000000 05000000"
      "06 02000000 00 01000000 13000000 01 31 19000000"
      "07 01000000 05 03 01000000 6B 29000000 00 01000000 32000000"
      "05 03 01000000 6B 3D000000 03 01000000 76 47000000"
      "05 03 01000000 6B 52000000 01 30 58000000"
      "05 03 03000000 6B0062 65000000 04 01000000 00 6F000000"
      "02 000000000000F83F 7C000000");
}

void expect_as_the_required_parser(const std::string& bytes) {
  TolkParams block;
  const bool verdict = block.Parser(bytes.data(), static_cast<int>(bytes.size()));
  const tolk_block::Received received = tolk_block::of_copy(bytes);
  ASSERT_EQ(c_block_text(received.is_well_formed(), received.block->index()),
            block_text(verdict, block))
      << to_hex(bytes);
  tolk_block* parsed_block = nullptr;
  const tolk_status status =
      tolk_block_parse(bytes.data(), bytes.size(), &parsed_block, nullptr, nullptr);
  EXPECT_EQ(status, verdict ? TOLK_OK : TOLK_MALFORMED);
  EXPECT_EQ(parsed_block != nullptr, verdict);
  tolk_block_free(parsed_block);
}

TEST(CBlockParse, AgreesWithTheRequiredParserOnEveryChangedByteAndLength) {
  const std::string whole = every_record();
  ASSERT_TRUE(tolk_block::of_copy(whole).is_well_formed());
  for (std::size_t size = 0; size <= whole.size(); ++size) {
    expect_as_the_required_parser(whole.substr(0, size));
  }
  for (std::size_t at = 0; at < whole.size(); ++at) {
    for (const int value : {0, 1, 2, 3, 4, 5, 6, 7, 8, 0x31, 0x7F, 0x80, 0xFF}) {
      std::string changed = whole;
      changed[at] = static_cast<char>(value);
      expect_as_the_required_parser(changed);
    }
  }
}

TEST(CBlockParse, SaysWhereTheFirstWrongRecordIs) {
  struct Case {
    const char* what;
    const char* bytes;
    std::size_t wrong_at;
  };
  const Case cases[] = {
      {"tag", "00 07000000 05000000 08", 9},
      {"int cut off", "01 31 02000000 00 0700", 6},
      {"check word", "01 31 02000000 00 07000000 05000000", 6},
      {"length beyond the end", "03 FFFFFF7F 61", 0},
      {"key is not a string", "01 31 02000000 05 04 01000000 6B 0D000000 01 31 13000000", 6},
      {"negative key length", "05 03 FFFFFFFF 6B 07000000 01 31 0D000000", 0},
      {"key at the end", "05 03 01000000 6B 07000000", 11},
      {"value of a key", "05 03 01000000 6B 07000000 01 31 00000000", 11},
      {"second element", "06 02000000 01 31 07000000 01 31 00000000", 11},
      {"list header", "06 0200", 0},
      {"map value", "07 01000000 05 03 01000000 6B 0C000000 01", 16},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(each.what);
    const std::string bytes = hex(each.bytes);
    expect_as_the_required_parser(bytes);
    tolk_block* block = nullptr;
    std::size_t wrong_at = 999;
    tolk_error* error = nullptr;
    EXPECT_EQ(tolk_block_parse(bytes.data(), bytes.size(), &block, &wrong_at, &error),
              TOLK_MALFORMED);
    EXPECT_EQ(wrong_at, each.wrong_at);
    EXPECT_EQ(tolk_error_status(error), TOLK_MALFORMED);
    EXPECT_NE(std::string(tolk_error_text(error)).find(std::to_string(wrong_at)),
              std::string::npos);
    tolk_error_free(error);
  }
}

TEST(CBlockParse, NullPointersAreMisuse) {
  tolk_block* block = nullptr;
  EXPECT_EQ(tolk_block_parse("", 0, nullptr, nullptr, nullptr), TOLK_MISUSE);
  EXPECT_EQ(tolk_block_parse(nullptr, 1, &block, nullptr, nullptr), TOLK_MISUSE);
  ASSERT_EQ(tolk_block_parse(nullptr, 0, &block, nullptr, nullptr), TOLK_OK);
  EXPECT_EQ(tolk_block_total(block), 0U);
  tolk_block_free(block);
}

TEST(CBlockParse, MapsOfPlainPeersAreRead) {
  const CBlock block = parsed(every_record());
  EXPECT_EQ(tolk_block_kind(block, 2), TOLK_MAP);
  const tolk_block* const map = tolk_block_inner(block, 2);
  EXPECT_EQ(tolk_block_int(map, tolk_block_find(map, "k")), 1);
  const CBlock copy = CBlock(tolk_block_copy(map));
  EXPECT_EQ(tolk_block_int(copy, tolk_block_find(copy, "k")), 1);
  const CBlock changed = CBlock(tolk_block_copy(block));
  tolk_block_add_none(changed);
  const tolk_block* const kept = tolk_block_inner(changed, 2);
  EXPECT_EQ(tolk_block_int(kept, tolk_block_find(kept, "k")), 1);
}

TEST(CBlockParse, KeysOfPlainMapsEndAtAZeroByteInAListToo) {
  const CBlock block =
      parsed(hex("07 01000000 05 03 03000000 6B0062 0E000000 03 01000000 76 18000000"));
  const CBlock outer;
  tolk_block_add_list(outer, block);
  const tolk_block* const maps[] = {tolk_block_inner(block, 0),
                                    tolk_block_inner(tolk_block_inner(outer, 0), 0)};
  for (const tolk_block* const map : maps) {
    EXPECT_EQ(tolk_block_total(map), 1U);
    EXPECT_EQ(tolk_block_find(map, "k"), 0U);
  }
}

TEST(CBlockParse, ReplyHidesReservedKeysAndIsSentWithoutThem) {
  std::string bytes;
  Encoder encoder(bytes, 0);
  encoder.add_int(5);
  encoder.add_key("s_c_sw_name");
  encoder.add_string("retval");
  encoder.add_key("mine");
  encoder.add_stream("");
  encoder.add_key("tolk.types");
  encoder.add_string("2=none");
  const auto reply =
      tolk_block::of_message({nullptr, bytes}, "2=none", tolk_block::Reserved::dropped);
  ASSERT_TRUE(reply.is_well_formed());
  EXPECT_EQ(tolk_block_total(reply.block.get()), 2U);
  EXPECT_EQ(tolk_block_kind(reply.block.get(), 1), TOLK_NONE);
  CBlock sent;
  tolk_block_add_int(sent, 5);
  tolk_block_add_key(sent, "mine");
  tolk_block_add_none(sent);
  EXPECT_EQ(to_hex(reply.block->share().view), to_hex(sent.get()->share().view));
  EXPECT_EQ(reply.block->types(), "1=none");
  EXPECT_EQ(encoded(reply.block.get()), encoded(sent));
}

TEST(CBlockParse, NotesThatFitNoValueArePassedOver) {
  std::string bytes;
  Encoder encoder(bytes, 0);
  encoder.add_stream("four");
  encoder.add_int(1);
  append_types(bytes, "0=int64 1=none 7=text 0=decimal x");
  const CBlock block = parsed(bytes);
  EXPECT_EQ(tolk_block_kind(block, 0), TOLK_BYTES);
  EXPECT_EQ(tolk_block_kind(block, 1), TOLK_INT);
}

TEST(CBlockParse, MoreNotesThanRecordsAreRefused) {
  std::string types;
  for (int i = 0; i < 1000; ++i) types += std::to_string(i) + ".1.1.1.1.1.1.1.1.1=none ";
  std::string bytes;
  append_types(bytes, types);
  tolk_block* block = nullptr;
  std::size_t wrong_at = 0;
  EXPECT_EQ(tolk_block_parse(bytes.data(), bytes.size(), &block, &wrong_at, nullptr),
            TOLK_MALFORMED);
  EXPECT_EQ(wrong_at, bytes.find("0.1.1"));
}

TEST(CBlockParse, NotesOfManyValuesAreNotRefused) {
  const CBlock block;
  for (int i = 0; i < 5000; ++i) tolk_block_add_int(block, INT64_MAX - i);
  const CBlock read = parsed(encoded(block));
  EXPECT_EQ(tolk_block_int(read, 4999), INT64_MAX - 4999);
}

TEST(CBlockParse, VeryDeepBlocksAreReadAndFreed) {
  constexpr int depth = 2000;
  std::string bytes;
  for (int i = 0; i < depth; ++i) {
    std::string outer;
    Encoder(outer, 0).add_stream(bytes);
    bytes = std::move(outer);
  }
  const CBlock block = parsed(bytes);
  const tolk_block* at = block;
  int levels = 0;
  for (; tolk_block_count(at) == 1; at = tolk_block_inner(at, 0)) ++levels;
  EXPECT_EQ(levels, depth);
}

TEST(CBlockParse, ManyEqualKeysTakeLittleTime) {
  std::string bytes;
  Encoder encoder(bytes, 0);
  for (int i = 0; i < 200'000; ++i) {
    encoder.add_key(i % 2 == 0 ? "same" : std::to_string(i));
    encoder.add_bool(true);
  }
  const CBlock block = parsed(bytes);
  EXPECT_EQ(tolk_block_total(block), 100'001U);
  EXPECT_EQ(tolk_block_find(block, "same"), 99'999U);
}

}  // namespace
}  // namespace tolk::test
