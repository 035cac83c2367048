#include "params/encoder.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>

#include "tests/params/hex.h"

namespace {

using tolk::Encoder;
using tolk::test::normal;
using tolk::test::to_hex;

template <class Write>
std::string written(Write write) {
  std::string buffer;
  Encoder encoder(buffer, 0);
  write(encoder);
  return to_hex(buffer);
}

// Memory of a fixed size, as a frame's.
struct FixedBuffer {
  char memory[64];
  std::size_t used = 0;

  void append(const char* bytes, std::size_t size) {
    std::memcpy(memory + used, bytes, size);
    used += size;
  }
  std::size_t size() const { return used; }
};

// What systems with the other order of bytes write.
TEST(Words, ReversedHaveTheirBytesInTheOtherOrder) {
  EXPECT_EQ(tolk::reversed(std::uint32_t{0x01F2E3D4}), std::uint32_t{0xD4E3F201});
  EXPECT_EQ(tolk::reversed(std::uint64_t{0x01F2E3D4C5B6A798}), std::uint64_t{0x98A7B6C5D4E3F201});
}

TEST(Encoder, IntRecord) {
  EXPECT_EQ(written([](auto& to) { to.add_int(7); }), normal("00 07000000 05000000"));
  EXPECT_EQ(written([](auto& to) { to.add_int(-2); }), normal("00 FEFFFFFF 05000000"));
  EXPECT_EQ(written([](auto& to) { to.add_int(0x12345678); }), normal("00 78563412 05000000"));
  EXPECT_EQ(written([](auto& to) { to.add_int(std::numeric_limits<int>::min()); }),
            normal("00 00000080 05000000"));
}

TEST(Encoder, BoolRecordHoldsADigit) {
  EXPECT_EQ(written([](auto& to) { to.add_bool(true); }), normal("01 31 02000000"));
  EXPECT_EQ(written([](auto& to) { to.add_bool(false); }), normal("01 30 02000000"));
}

TEST(Encoder, DoubleRecord) {
  EXPECT_EQ(written([](auto& to) { to.add_double(-2.5); }), normal("02 00000000000004C0 09000000"));
}

TEST(Encoder, StringRecordHasNoTerminatingZero) {
  EXPECT_EQ(written([](auto& to) { to.add_string("ok"); }), normal("03 02000000 6F6B 07000000"));
  EXPECT_EQ(written([](auto& to) { to.add_string(""); }), normal("03 00000000 05000000"));
}

TEST(Encoder, StreamRecordKeepsEveryByte) {
  EXPECT_EQ(written([](auto& to) { to.add_stream(std::string_view("\0\xFF", 2)); }),
            normal("04 02000000 00FF 07000000"));
  EXPECT_EQ(written([](auto& to) { to.add_stream({}); }), normal("04 00000000 05000000"));
}

TEST(Encoder, KeyAndValueRecord) {
  EXPECT_EQ(written([](auto& to) {
              to.add_int(7);
              to.add_key("ok");
              to.add_bool(true);
            }),
            normal("00 07000000 05000000 05 03 02000000 6F6B 11000000 01 31 17000000"));
}

TEST(Encoder, ListHeaderHasNoCheckWord) {
  EXPECT_EQ(written([](auto& to) { to.add_list_header(258); }), normal("06 02010000"));
}

TEST(Encoder, CheckWordsCountFromTheBase) {
  std::string buffer = "head";
  Encoder encoder(buffer, buffer.size());
  encoder.add_bool(true);
  encoder.add_string("x");
  EXPECT_EQ(to_hex(buffer), normal("68656164 01 31 02000000 03 01000000 78 0C000000"));
}

TEST(Encoder, CheckWordsAreTheLowBitsOfAnOffsetBeyond32Bits) {
  // Only claims its size: no test has 4 GiB to fill.
  struct HugeBuffer {
    std::string tail;
    void append(const char* bytes, std::size_t size) { tail.append(bytes, size); }
    std::uint64_t size() const { return (std::uint64_t{1} << 32) + tail.size(); }
  };
  HugeBuffer buffer;
  Encoder encoder(buffer, 0);
  encoder.add_bool(true);
  encoder.add_string("");
  EXPECT_EQ(to_hex(buffer.tail), normal("01 31 02000000 03 00000000 0B000000"));
}

TEST(Encoder, OverlongLengthIsCutToTheBitsThatTravel) {
  if constexpr (sizeof(std::size_t) > 4) {
    const std::string_view overlong("abcd", (std::size_t{1} << 32) + 3);
    EXPECT_EQ(written([&](auto& to) { to.add_stream(overlong); }),
              normal("04 03000000 616263 08000000"));
  }
}

TEST(Encoder, WritesIntoAnyBufferOfTheSizeThatIsForeseen) {
  FixedBuffer buffer;
  Encoder encoder(buffer, 0);
  std::size_t foreseen = 0;
  encoder.add_int(1);
  EXPECT_EQ(buffer.used, foreseen += tolk::int_record_bytes);
  encoder.add_bool(true);
  EXPECT_EQ(buffer.used, foreseen += tolk::bool_record_bytes);
  encoder.add_double(1);
  EXPECT_EQ(buffer.used, foreseen += tolk::double_record_bytes);
  encoder.add_string("abc");
  EXPECT_EQ(buffer.used, foreseen += tolk::string_record_bytes(3));
  encoder.add_key("k");
  encoder.add_stream("xy");
  EXPECT_EQ(buffer.used, foreseen += tolk::keyed_bytes(1, tolk::stream_record_bytes(2)));
}

}  // namespace
