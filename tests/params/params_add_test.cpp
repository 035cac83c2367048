#include <gtest/gtest.h>
#include <tolk/ListParams.h>
#include <tolk/TolkParams.h>
#include <tolk/TolkValue.h>

#include <cstdint>
#include <string>

#include "params/content.h"
#include "tests/params/hex.h"

namespace {

using tolk::test::hex;
using tolk::test::normal;
using tolk::test::to_hex;

std::string bytes_of(TolkParams& block) { return to_hex(*block.GetParamas()); }
TEST(Params, NewBlockIsEmptyAndParses) {
  TolkParams block;
  EXPECT_EQ(block.Size(), 0);
  EXPECT_EQ(block.ParamsSize(), 0);
  EXPECT_EQ(block.MapSize(), 0);
  EXPECT_EQ(block.GetParamasSize(), 0);
  EXPECT_STREQ(block.GetParamasPtr(), "");
  EXPECT_FALSE(block.IsGetBuffer());
  EXPECT_TRUE(block.ToParams());
}

TEST(Params, AddingMakesNoValuesUntilParsed) {
  TolkParams block;
  block.AddInt(1);
  block.AddKeyValueInt("k", 2);
  EXPECT_EQ(block.Size(), 9 + 1 + 10 + 9);
  EXPECT_EQ(block.ParamsSize(), 0);
  EXPECT_EQ(block.MapSize(), 0);
  EXPECT_TRUE(block.ToParams());
  EXPECT_EQ(block.ParamsSize(), 1);
  EXPECT_EQ(block.MapSize(), 1);
}

TEST(Params, IntAndKeyedBoolAreTwentySevenBytes) {
  TolkParams block;
  block.AddInt(7);
  block.AddKeyValueBool("ok", true);
  EXPECT_EQ(bytes_of(block),
            normal("00 07000000 05000000 05 03 02000000 6F6B 11000000 01 31 17000000"));
  EXPECT_EQ(block.GetParamasSize(), 27);
  EXPECT_EQ(std::string(block.GetParamasPtr(), 27), *block.GetParamas());
}

TEST(Params, EachPositionalRecord) {
  TolkParams block;
  block.AddBool(true);
  block.AddBool(false);
  block.AddDouble(1.0);
  block.AddString("ab");
  block.AddStream("a\0b", 3);
  EXPECT_EQ(bytes_of(block), normal("01 31 02000000"
                                    "01 30 08000000"
                                    "02 000000000000F03F 15000000"
                                    "03 02000000 6162 20000000"
                                    "04 03000000 610062 2C000000"));
}

TEST(Params, EachKeyedRecord) {
  TolkParams block;
  block.AddKeyValueInt("i", 1);
  block.AddKeyValueBool("b", false);
  block.AddKeyValueDouble("d", 1.0);
  block.AddKeyValueString("s", "x");
  block.AddKeyValueStream("t", "\0", 1);
  EXPECT_EQ(bytes_of(block), normal("05 03 01000000 69 07000000 00 01000000 10000000"
                                    "05 03 01000000 62 1B000000 01 30 21000000"
                                    "05 03 01000000 64 2C000000 02 000000000000F03F 39000000"
                                    "05 03 01000000 73 44000000 03 01000000 78 4E000000"
                                    "05 03 01000000 74 59000000 04 01000000 00 63000000"));
}

TEST(Params, EmptyStringAndEmptyStreamAreNineBytes) {
  TolkParams block;
  block.AddString("");
  block.AddStream("ignored", 0);
  EXPECT_EQ(bytes_of(block), normal("03 00000000 05000000 04 00000000 0E000000"));
}

TEST(Params, NullAndNegativeLengthsCountAsEmpty) {
  TolkParams block;
  block.AddString(nullptr);
  block.AddStream(nullptr, 5);
  block.AddStream("abc", -1);
  block.AddKeyValueString(nullptr, nullptr);
  EXPECT_EQ(bytes_of(block), normal("03 00000000 05000000"
                                    "04 00000000 0E000000"
                                    "04 00000000 17000000"
                                    "05 03 00000000 21000000 03 00000000 2A000000"));
}

// Where `long` has 64 bits.
TEST(Params, OverlongStreamIsCutToTheBitsThatTravel) {
  if constexpr (sizeof(long) > 4) {
    TolkParams block;
    block.AddStream("abcd", static_cast<long>(0x100000003));
    EXPECT_EQ(bytes_of(block), normal("04 03000000 616263 08000000"));
  } else {
    EXPECT_EQ(static_cast<long>(0x100000003), 3) << "the host's own cast has cut it";
  }
}

// Where it has 32, as on Windows, this is what a host's cast of a larger length makes of it.
TEST(Params, LengthOfTwoGibibytesInThirtyTwoBitsIsNegativeAndCountsAsEmpty) {
  for (const std::uint32_t length : {0x80000000U, 0x80000001U, 0xFFFFFFFFU}) {
    const long as_signed = static_cast<std::int32_t>(length);
    TolkParams block;
    block.AddStream("abc", as_signed);
    block.AddKeyValueStream("k", "abc", as_signed);
    ListParams* const list = TolkParams::CreateListParams();
    list->AddStream("abc", as_signed);
    list->AddString("abc", as_signed);
    block.AddList(list);
    ASSERT_TRUE(block.ToParams());
    long size = -1;
    EXPECT_NE(block.GetValue(0)->GetStream(size), nullptr);
    EXPECT_EQ(size, 0);
    block.GetMap("k")->GetStream(size);
    EXPECT_EQ(size, 0);
    for (const TolkValue* element : *block.GetValue(1)->GetList()) {
      element->GetStream(size);
      EXPECT_EQ(size, 0);
    }
    const TolkValue value("abc", as_signed, TolkValue::Type::Stream);
    value.GetStream(size);
    EXPECT_EQ(size, 0);
  }
}

// Long enough that the bytes are not inside the string object itself.
class OwnBytes : public ::testing::Test {
 protected:
  OwnBytes() { block.AddString("a text that needs memory of its own"); }

  // Own bytes up to the first zero byte of the text's record.
  const char* own_text() { return block.GetParamasPtr() + 5; }

  TolkParams block;
};

TEST_F(OwnBytes, CanBeAppendedAsAStream) {
  block.GetParamas()->shrink_to_fit();
  const std::string before = *block.GetParamas();
  block.AddStream(block.GetParamasPtr(), block.GetParamasSize());
  ASSERT_TRUE(block.ToParams());
  long size = 0;
  const char* data = block.GetValue(1)->GetStream(size);
  EXPECT_EQ(std::string(data, static_cast<std::size_t>(size)), before);
}

TEST_F(OwnBytes, CanBeAppendedAsAString) {
  block.GetParamas()->shrink_to_fit();
  const std::string text = own_text();
  block.AddString(own_text());
  ASSERT_TRUE(block.ToParams());
  EXPECT_EQ(block.GetValue(1)->GetString(), text);
}

TEST_F(OwnBytes, CanBeBothKeyAndValue) {
  for (const bool stream : {true, false}) {
    TolkParams copy(block);
    const char* own = copy.GetParamasPtr() + 5;
    const std::string text = own;
    copy.GetParamas()->shrink_to_fit();
    own = copy.GetParamasPtr() + 5;
    if (stream) copy.AddKeyValueStream(own, own, static_cast<long>(text.size()));
    if (!stream) copy.AddKeyValueString(own, own);
    ASSERT_TRUE(copy.ToParams());
    ASSERT_NE(copy.GetMap(text.c_str()), nullptr);
    EXPECT_EQ(copy.GetMap(text.c_str())->GetString(), text);
  }
}

TEST(Params, GetParamasIsTheBufferItself) {
  TolkParams block;
  std::string* const buffer = block.GetParamas();
  block.AddInt(7);
  EXPECT_EQ(buffer->size(), 9U);
  *buffer = hex("01 31 02000000");
  EXPECT_EQ(block.Size(), 6);
  EXPECT_TRUE(block.ToParams());
  EXPECT_TRUE(block.GetValue(0)->GetBool());
  EXPECT_EQ(block.GetParamas(), buffer);
}

TEST(Params, ClearEmptiesAllButTheFlag) {
  TolkParams block;
  block.AddInt(7);
  block.AddKeyValueInt("k", 1);
  ASSERT_TRUE(block.ToParams());
  ASSERT_EQ(block.GetMapPtr()->size(), 1U);
  block.GetBuffer();
  block.Clear();
  EXPECT_EQ(block.Size(), 0);
  EXPECT_EQ(block.ParamsSize(), 0);
  EXPECT_EQ(block.MapSize(), 0);
  EXPECT_TRUE(block.GetMapPtr()->empty());
  EXPECT_TRUE(block.IsGetBuffer());
  block.AddBool(true);
  EXPECT_EQ(bytes_of(block), normal("01 31 02000000"));
}

TEST(Params, ClearGivesTheMemoryBack) {
  TolkParams block;
  const std::string large(100000, 'x');
  block.AddStream(large.data(), static_cast<long>(large.size()));
  block.Clear();
  EXPECT_LT(block.GetParamas()->capacity(), 1000U);
}

TEST(Params, ManySmallRecordsGrowTheBufferSeldom) {
  TolkParams block;
  int moves = 0;
  for (int i = 0; i < 10000; ++i) {
    const std::size_t before = block.GetParamas()->capacity();
    block.AddInt(i);
    if (block.GetParamas()->capacity() != before) ++moves;
  }
  EXPECT_LE(moves, 20);
}

// The operations that a host's own block class may use.
struct OpenBlock : TolkParams {
  using TolkParams::AddCheckSize;
  using TolkParams::BytesToDouble;
  using TolkParams::BytesToInt;
  using TolkParams::CheckSize;
  using TolkParams::DoubleTobytes;
  using TolkParams::IntTobytes;
};

// The keys of a large call fit behind the large record, and little more than that is held.
TEST(Params, LargeRecordHasRoomForSmallOnesBehindIt) {
  TolkParams block;
  const std::string large(4 << 20, 'x');
  block.AddStream(large.data(), static_cast<long>(large.size()));
  const std::size_t capacity = block.GetParamas()->capacity();
  EXPECT_LE(capacity, large.size() + 8192);
  block.AddKeyValueString("key", std::string(4000, 'y').c_str());
  EXPECT_EQ(block.GetParamas()->capacity(), capacity);
}

TEST(Params, DerivedBlocksCanWriteRecordsByHand) {
  OpenBlock block;
  block.GetParamas()->push_back('\0');
  block.IntTobytes(-2, block.GetParamas());
  block.AddCheckSize();
  EXPECT_EQ(bytes_of(block), normal("00 FEFFFFFF 05000000"));
  std::string out = "x";
  block.DoubleTobytes(1.0, &out);
  EXPECT_EQ(to_hex(out), normal("78 000000000000F03F"));
}

TEST(Params, DerivedBlocksCanReadRecordsByHand) {
  OpenBlock block;
  EXPECT_EQ(block.BytesToInt(hex("FEFFFFFF").data()), -2);
  EXPECT_EQ(block.BytesToDouble(hex("000000000000F03F").data()), 1.0);
  EXPECT_TRUE(block.CheckSize(5, hex("05000000").data()));
  EXPECT_FALSE(block.CheckSize(6, hex("05000000").data()));
}

}  // namespace
