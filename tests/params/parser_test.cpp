#include <gtest/gtest.h>
#include <tolk/TolkParams.h>
#include <tolk/TolkValue.h>

#include <chrono>
#include <string>
#include <string_view>

#include "params/content.h"
#include "params/encoder.h"
#include "tests/params/block_text.h"
#include "tests/params/hex.h"

namespace {

using tolk::test::hex;
using Naive = tolk::test::NaiveParser;

// What `bytes` parse to, in a block that held other values before.
std::string parsed(std::string_view bytes) {
  TolkParams block;
  block.AddInt(12345);
  block.AddKeyValueInt("earlier", 1);
  EXPECT_TRUE(block.ToParams());
  const bool verdict = block.Parser(bytes.data(), static_cast<int>(bytes.size()));
  EXPECT_EQ(*block.GetParamas(), bytes);
  return tolk::test::block_text(verdict, block);
}

std::string parsed_hex(std::string_view digits) { return parsed(hex(digits)); }

std::string keyed_line(std::string_view key, const std::string& value) {
  return Naive::hexed(key) + "=" + value + "\n";
}

TEST(Parser, EmptyAndNegativeLengthsLeaveAnEmptyBlock) {
  for (const int len : {0, -5}) {
    TolkParams block;
    block.AddInt(1);
    ASSERT_TRUE(block.ToParams());
    EXPECT_TRUE(block.Parser("\x08", len));
    EXPECT_EQ(block.Size(), 0);
    EXPECT_EQ(block.ParamsSize(), 0);
  }
}

TEST(Parser, NullDataIsAnEmptyBlock) {
  TolkParams block;
  block.AddInt(1);
  EXPECT_TRUE(block.Parser(nullptr, 9));
  EXPECT_EQ(block.Size(), 0);
}

TEST(Parser, IntAndKeyedBool) {
  EXPECT_EQ(parsed_hex("00 07000000 05000000 05 03 02000000 6F6B 11000000 01 31 17000000"),
            "true\nint 7\n" + keyed_line("ok", "bool 1"));
}

TEST(Parser, EachScalarRecord) {
  EXPECT_EQ(parsed_hex("00 FEFFFFFF 05000000"), "true\nint -2\n");
  EXPECT_EQ(parsed_hex("01 31 02000000"), "true\nbool 1\n");
  EXPECT_EQ(parsed_hex("01 30 02000000"), "true\nbool 0\n");
  EXPECT_EQ(parsed_hex("02 000000000000F03F 09000000"), "true\n" + Naive::double_text(1.0) + "\n");
  EXPECT_EQ(parsed_hex("03 02000000 6100 07000000"), "true\nstring 6100\n");
  EXPECT_EQ(parsed_hex("04 02000000 00FF 07000000"), "true\nstream 00ff\n");
  EXPECT_EQ(parsed_hex("03 00000000 05000000"), "true\nstring \n");
  EXPECT_EQ(parsed_hex("04 00000000 05000000"), "true\nstream \n");
}

TEST(Parser, BoolIsTrueForTheDigitOneAlone) {
  EXPECT_EQ(parsed_hex("01 32 02000000"), "true\nbool 0\n");
  EXPECT_EQ(parsed_hex("01 01 02000000"), "true\nbool 0\n");
}

TEST(Parser, DoubleKeepsItsBits) {
  TolkParams block;
  const std::string bytes = hex("02 010000000000F0FF 09000000");  // a signalling NaN
  ASSERT_TRUE(block.Parser(bytes.data(), 13));
  block.Clear();
  EXPECT_EQ(parsed(bytes), Naive(bytes).text());
}

TEST(Parser, PositionalValuesKeepTheirOrder) {
  EXPECT_EQ(parsed_hex("01 31 02000000 00 01000000 0B000000 01 30 11000000"),
            "true\nbool 1\nint 1\nbool 0\n");
}

TEST(Parser, EachKeyedRecord) {
  EXPECT_EQ(parsed_hex("05 03 01000000 69 07000000 00 01000000 10000000"),
            "true\n" + keyed_line("i", "int 1"));
  EXPECT_EQ(parsed_hex("05 03 01000000 62 07000000 01 30 0D000000"),
            "true\n" + keyed_line("b", "bool 0"));
  EXPECT_EQ(parsed_hex("05 03 01000000 64 07000000 02 000000000000F03F 14000000"),
            "true\n" + keyed_line("d", Naive::double_text(1.0)));
  EXPECT_EQ(parsed_hex("05 03 01000000 73 07000000 03 01000000 78 11000000"),
            "true\n" + keyed_line("s", "string 78"));
  EXPECT_EQ(parsed_hex("05 03 00000000 06000000 04 01000000 00 10000000"),
            "true\n" + keyed_line("", "stream 00"));
}

TEST(Parser, OwnBlockIsParsedAgainAndAgain) {
  TolkParams block;
  block.AddInt(1);
  block.AddKeyValueInt("k", 2);
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(block.ToParams());
    EXPECT_EQ(block.ParamsSize(), 1);
    EXPECT_EQ(block.MapSize(), 1);
    EXPECT_EQ(block.Size(), 38 - 9);
  }
}

TEST(Parser, InputMayLieInTheBlocksOwnBytesOrValues) {
  TolkParams inner;
  inner.AddString("a text that needs memory of its own");
  TolkParams block;
  block.AddStream(inner.GetParamasPtr(), inner.GetParamasSize());
  ASSERT_TRUE(block.ToParams());
  ASSERT_TRUE(block.Parser(block.GetParamasPtr(), block.Size()));
  long size = 0;
  const char* data = block.GetValue(0)->GetStream(size);
  ASSERT_TRUE(block.Parser(data, static_cast<int>(size)));
  EXPECT_STREQ(block.GetValue(0)->GetString(), "a text that needs memory of its own");
}

// --- failures ---

TEST(ParserFailure, TagAboveSeven) {
  EXPECT_EQ(parsed_hex("08"), "false\n");
  EXPECT_EQ(parsed_hex("80"), "false\n");
  EXPECT_EQ(parsed_hex("FF"), "false\n");
  EXPECT_EQ(parsed_hex("01 31 02000000 08"), "false\nbool 1\n");
}

TEST(ParserFailure, WrongCheckWordKeepsTheValueBeforeIt) {
  EXPECT_EQ(parsed_hex("00 07000000 06000000"), "false\nint 7\n");
  EXPECT_EQ(parsed_hex("00 07000000 04000000"), "false\nint 7\n");
  EXPECT_EQ(parsed_hex("01 31 02000001"), "false\nbool 1\n");
  EXPECT_EQ(parsed_hex("02 0000000000000000 0A000000"), "false\ndouble 0\n");
  EXPECT_EQ(parsed_hex("03 01000000 61 07000000"), "false\nstring 61\n");
  EXPECT_EQ(parsed_hex("04 01000000 61 05000000"), "false\nstream 61\n");
}

TEST(ParserFailure, RecordThatEndsBeforeItsCheckWordKeepsItsValue) {
  EXPECT_EQ(parsed_hex("00 07000000"), "false\nint 7\n");
  EXPECT_EQ(parsed_hex("00 07000000 050000"), "false\nint 7\n");
  EXPECT_EQ(parsed_hex("01 31"), "false\nbool 1\n");
  EXPECT_EQ(parsed_hex("02 0000000000000000"), "false\ndouble 0\n");
  EXPECT_EQ(parsed_hex("03 01000000 61"), "false\nstring 61\n");
}

TEST(ParserFailure, ValueBytesBeyondTheEndLeaveNothing) {
  EXPECT_EQ(parsed_hex("00 070000"), "false\n");
  EXPECT_EQ(parsed_hex("01"), "false\n");
  EXPECT_EQ(parsed_hex("02 00000000000000"), "false\n");
  EXPECT_EQ(parsed_hex("03 010000"), "false\n");
  EXPECT_EQ(parsed_hex("03 02000000 61"), "false\n");
  EXPECT_EQ(parsed_hex("04 02000000 61"), "false\n");
}

TEST(ParserFailure, LengthsThatWrapAroundInThirtyTwoBits) {
  for (const char* length : {"FFFFFFFF", "FBFFFFFF", "FAFFFFFF", "00000080", "FFFFFF7F"}) {
    for (const char* tag : {"03", "04"}) {
      EXPECT_EQ(parsed_hex(std::string(tag) + length + "0000000000000000"), "false\n") << length;
    }
    EXPECT_EQ(parsed_hex(std::string("05 03") + length + "0000000000000000"), "false\n") << length;
  }
}

TEST(ParserFailure, NegativeKeyLengthThatPointsBackAtAnEarlierCheckWord) {
  // -10 leads from the key at 15 to the check word at 5, and from there to this record again.
  EXPECT_EQ(parsed_hex("00 07000000 05000000 05 03 F6FFFFFF 00000000"), "false\nint 7\n");
}

TEST(ParserFailure, KeyThatIsNoString) {
  EXPECT_EQ(parsed_hex("05 04 01000000 6B 07000000 01 31 0D000000"), "false\n");
  EXPECT_EQ(parsed_hex("05"), "false\n");
  EXPECT_EQ(parsed_hex("07 01000000 05 04 01000000 6B 0C000000 01 31 12000000"), "false\n");
}

TEST(ParserFailure, KeyRecordThatIsCutOrWrong) {
  EXPECT_EQ(parsed_hex("05 03 00000000 060000"), "false\n");
  EXPECT_EQ(parsed_hex("05 03 04000000 6B 07000000"), "false\n");
  EXPECT_EQ(parsed_hex("05 03 01000000 6B 08000000 01 31 0D000000"), "false\n");
  EXPECT_EQ(parsed_hex("05 03 01000000 6B 07000000"), "false\n");
}

TEST(ParserFailure, KeyedValueWithAWrongCheckWordStays) {
  EXPECT_EQ(parsed_hex("05 03 01000000 6B 07000000 01 31 0E000000"),
            "false\n" + keyed_line("k", "bool 1"));
}

TEST(ParserFailure, ValuesBeforeTheFailingRecordStay) {
  EXPECT_EQ(parsed_hex("00 07000000 05000000 05 03 01000000 6B 10000000 01 31 16000000 09"),
            "false\nint 7\n" + keyed_line("k", "bool 1"));
}

// --- keys ---

TEST(ParserKeys, LaterValueOfAKeyWins) {
  EXPECT_EQ(parsed_hex("05 03 01000000 6B 07000000 01 31 0D000000"
                       "05 03 01000000 6B 18000000 00 02000000 21000000"),
            "true\n" + keyed_line("k", "int 2"));
}

TEST(ParserKeys, EarlierValueGoesEvenIfTheLaterIsMalformed) {
  EXPECT_EQ(parsed_hex("05 03 01000000 6B 07000000 01 31 0D000000"
                       "05 03 01000000 6B 18000000 00 0200"),
            "false\n");
}

TEST(ParserKeys, EarlierValueGoesEvenIfNoScalarFollows) {
  // The tag 6 behind the second key is then a top-level list.
  EXPECT_EQ(parsed_hex("05 03 01000000 6B 07000000 01 31 0D000000"
                       "05 03 01000000 6B 18000000 06 00000000"),
            "true\nlist\n");
}

TEST(ParserKeys, KeyWithoutAScalarIsForgotten) {
  EXPECT_EQ(parsed_hex("05 03 01000000 61 07000000 05 03 01000000 62 12000000 01 31 18000000"),
            "true\n" + keyed_line("b", "bool 1"));
  EXPECT_EQ(parsed_hex("05 03 01000000 61 07000000 08"), "false\n");
}

TEST(ParserKeys, ZeroByteCutsTheKeysOfNumbersAndBools) {
  const std::string key_record = "05 03 03000000 610062 09000000";
  EXPECT_EQ(parsed_hex(key_record + "00 01000000 12000000"), "true\n" + keyed_line("a", "int 1"));
  EXPECT_EQ(parsed_hex(key_record + "01 31 0F000000"), "true\n" + keyed_line("a", "bool 1"));
  EXPECT_EQ(parsed_hex(key_record + "02 0000000000000000 16000000"),
            "true\n" + keyed_line("a", "double 0"));
}

TEST(ParserKeys, ZeroByteStaysInTheKeysOfStringsAndStreams) {
  const std::string key_record = "05 03 03000000 610062 09000000";
  const std::string_view whole("a\0b", 3);
  EXPECT_EQ(parsed_hex(key_record + "03 01000000 78 13000000"),
            "true\n" + keyed_line(whole, "string 78"));
  EXPECT_EQ(parsed_hex(key_record + "04 01000000 78 13000000"),
            "true\n" + keyed_line(whole, "stream 78"));
}

TEST(ParserKeys, WholeKeyTwiceKeepsTheSecondValue) {
  EXPECT_EQ(parsed_hex("05 03 03000000 610062 09000000 03 01000000 78 13000000"
                       "05 03 03000000 610062 20000000 03 01000000 79 2A000000"),
            "true\n" + keyed_line(std::string_view("a\0b", 3), "string 79"));
}

TEST(ParserKeys, WholeKeyDropsTheValueOfItsCutText) {
  EXPECT_EQ(parsed_hex("05 03 01000000 61 07000000 01 31 0D000000"
                       "05 03 03000000 610062 1A000000 03 01000000 79 24000000"),
            "true\n" + keyed_line(std::string_view("a\0b", 3), "string 79"));
}

// --- lists ---

TEST(ParserList, EachKindOfElement) {
  EXPECT_EQ(parsed_hex("06 05000000"
                       "00 07000000 0A000000"
                       "01 31 10000000"
                       "02 000000000000F03F 1D000000"
                       "03 02000000 6F6B 28000000"
                       "04 03000000 610062 34000000"),
            "true\nlist\n  int 7\n  bool 1\n  " + Naive::double_text(1.0) +
                "\n  string 6f6b\n  stream 610062\n");
}

TEST(ParserList, CountNotAboveZeroIsAnEmptyList) {
  EXPECT_EQ(parsed_hex("06 00000000"), "true\nlist\n");
  EXPECT_EQ(parsed_hex("06 FFFFFFFF"), "true\nlist\n");
  EXPECT_EQ(parsed_hex("06 00000080"), "true\nlist\n");
}

TEST(ParserList, ElementsAboveTheCountAreTopLevel) {
  EXPECT_EQ(parsed_hex("06 01000000 01 31 07000000 01 30 0D000000"),
            "true\nlist\n  bool 1\nbool 0\n");
}

TEST(ParserList, UnknownElementEndsItAndIsReadAgain) {
  EXPECT_EQ(parsed_hex("06 02000000 05 03 01000000 6B 0C000000 01 31 12000000"),
            "true\nlist\n" + keyed_line("k", "bool 1"));
  EXPECT_EQ(parsed_hex("06 03000000 01 31 07000000 06 00000000"), "true\nlist\n  bool 1\nlist\n");
  EXPECT_EQ(parsed_hex("06 02000000 08"), "false\nlist\n");
}

TEST(ParserList, FailureInsideDiscardsIt) {
  EXPECT_EQ(parsed_hex("06 02000000 01 31 07000000 01 31 0E000000"), "false\n");
  EXPECT_EQ(parsed_hex("06 02000000 01 31 07000000 00 0100"), "false\n");
  EXPECT_EQ(parsed_hex("01 31 02000000 06 01000000 04 09000000 61"), "false\nbool 1\n");
}

TEST(ParserList, FewerElementsThanTheCountDiscardIt) {
  EXPECT_EQ(parsed_hex("06 02000000 01 31 07000000"), "false\n");
  EXPECT_EQ(parsed_hex("06 010000"), "false\n");
  EXPECT_EQ(parsed_hex("06"), "false\n");
}

// --- maps ---

TEST(ParserMap, EachKindOfEntry) {
  EXPECT_EQ(parsed_hex("07 05000000"
                       "05 03 01000000 61 0C000000 00 01000000 15000000"
                       "05 03 01000000 62 20000000 01 31 26000000"
                       "05 03 01000000 63 31000000 02 0000000000000000 3E000000"
                       "05 03 01000000 64 49000000 03 01000000 78 53000000"
                       "05 03 01000000 65 5E000000 04 01000000 00 68000000"),
            "true\nmap\n  61=int 1\n  62=bool 1\n  63=double 0\n  64=string 78\n  65=stream 00\n");
}

TEST(ParserMap, CountNotAboveZeroIsAnEmptyMap) {
  EXPECT_EQ(parsed_hex("07 00000000"), "true\nmap\n");
  EXPECT_EQ(parsed_hex("07 FFFFFFFF"), "true\nmap\n");
}

TEST(ParserMap, LaterEntryOfAKeyWins) {
  EXPECT_EQ(parsed_hex("07 02000000"
                       "05 03 01000000 61 0C000000 01 31 12000000"
                       "05 03 01000000 61 1D000000 03 01000000 78 27000000"),
            "true\nmap\n  61=string 78\n");
}

TEST(ParserMap, ZeroByteCutsEveryKey) {
  EXPECT_EQ(parsed_hex("07 01000000 05 03 03000000 610062 0E000000 03 01000000 78 18000000"),
            "true\nmap\n  61=string 78\n");
}

TEST(ParserMap, KeyDropsTheBlocksOwnKeyedValue) {
  EXPECT_EQ(parsed_hex("05 03 01000000 61 07000000 01 31 0D000000"
                       "07 01000000 05 03 01000000 61 1D000000 01 30 23000000"),
            "true\nmap\n  61=bool 0\n");
}

TEST(ParserMap, RecordThatIsNoKeyEndsItAndIsReadAgain) {
  EXPECT_EQ(parsed_hex("07 02000000 01 31 07000000"), "true\nmap\nbool 1\n");
  EXPECT_EQ(parsed_hex("07 02000000 08"), "false\nmap\n");
}

TEST(ParserMap, KeyWithoutAScalarCountsAndTheNextPassGoesOn) {
  // Behind key "a" stands another key record: that is the second entry.
  EXPECT_EQ(parsed_hex("07 02000000 05 03 01000000 61 0C000000"
                       "05 03 01000000 62 17000000 01 31 1D000000"),
            "true\nmap\n  62=bool 1\n");
  // With a count of one it is a keyed value of the block.
  EXPECT_EQ(parsed_hex("07 01000000 05 03 01000000 61 0C000000"
                       "05 03 01000000 62 17000000 01 31 1D000000"),
            "true\nmap\n" + keyed_line("b", "bool 1"));
}

TEST(ParserMap, FailureInsideDiscardsIt) {
  EXPECT_EQ(parsed_hex("07 02000000 05 03 01000000 61 0C000000 01 31 12000000"), "false\n");
  EXPECT_EQ(parsed_hex("07 01000000 05 03 01000000 61 0C000000 01 31 13000000"), "false\n");
  EXPECT_EQ(parsed_hex("07 01000000 05 03 01000000 61 0D000000 01 31 12000000"), "false\n");
  EXPECT_EQ(parsed_hex("07 01000000 05 03 01000000 61 0C000000"), "false\n");
  EXPECT_EQ(parsed_hex("07 0100"), "false\n");
}

// --- cost ---

TEST(ParserCost, HugeCountsEndAtOnce) {
  // A thousand records that each declare 2^31 - 1 passes: hours, if every pass were made.
  std::string bytes;
  for (int i = 0; i < 1000; ++i) bytes += hex(i % 2 == 0 ? "06 FFFFFF7F" : "07 FFFFFF7F");
  tolk::Encoder(bytes, 0).add_bool(true);
  TolkParams block;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(block.Parser(bytes.data(), static_cast<int>(bytes.size())));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
  EXPECT_EQ(block.ParamsSize(), 1001);
}

TEST(ParserCost, DuplicateKeysHoldNoMemory) {
  // The values of a key that comes again and again are freed; the leak check watches.
  TolkParams block;
  for (int i = 0; i < 20000; ++i) block.AddKeyValueStream("same", "value", 5);
  ASSERT_TRUE(block.ToParams());
  EXPECT_EQ(block.MapSize(), 1);
}

}  // namespace
