#include "transport/frame.h"

#include <gtest/gtest.h>
#include <tests/params/hex.h>

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

using tolk::Frame;
using tolk::test::hex;
using tolk::test::to_hex;

TEST(Frame, EmptyPayloadIsFourZeroBytes) {
  const Frame frame = Frame::copy_of("");
  EXPECT_EQ(to_hex(frame.bytes()), "00 00 00 00");
  EXPECT_EQ(frame.payload_bytes(), 0u);
}

TEST(Frame, LengthIsLittleEndianAndDoesNotCountItself) {
  const std::string payload(0x0102, 'x');
  const Frame frame = Frame::copy_of(payload);
  EXPECT_EQ(frame.bytes().size(), payload.size() + 4);
  EXPECT_EQ(to_hex(frame.bytes().substr(0, 4)), "02 01 00 00");
  EXPECT_EQ(frame.bytes().substr(4), payload);
}

TEST(Frame, AllFourBytesOfTheLengthAreWritten) {
  const std::string payload(0x010203, 'y');
  EXPECT_EQ(to_hex(Frame::copy_of(payload).bytes().substr(0, 4)), "03 02 01 00");
}

TEST(Frame, ZeroBytesOfThePayloadAreKept) {
  const std::string payload = hex("00 41 00 00 FF");
  EXPECT_EQ(Frame::copy_of(payload).bytes().substr(4), payload);
}

TEST(Frame, DescriptorCoversPrefixAndPayload) {
  const Frame frame = Frame::copy_of("abc");
  EXPECT_EQ(frame.buffers()[0].len, 7u);
  EXPECT_EQ(frame.buffers()[0].base, frame.bytes().data());
}

TEST(Frame, BuiltInPlaceEqualsTheEncodedBlock) {
  const auto fill = [](auto& encoder) {
    encoder.add_key("k");
    encoder.add_int(7);
    encoder.add_string("text");
  };
  std::string block;
  tolk::Encoder<std::string> encoder(block, 0);
  fill(encoder);
  const Frame frame = Frame::build(fill);
  EXPECT_EQ(frame.payload_bytes(), block.size());
  EXPECT_EQ(to_hex(frame.bytes().substr(4)), to_hex(block));
}

TEST(Frame, CheckWordsCountFromTheBlockNotFromThePrefix) {
  const Frame frame = Frame::build([](auto& encoder) { encoder.add_bool(true); });
  EXPECT_EQ(to_hex(frame.bytes()), "06 00 00 00 01 31 02 00 00 00");
}

TEST(Frame, NothingFilledInIsAnEmptyFrame) {
  EXPECT_EQ(to_hex(Frame::build([](auto&) {}).bytes()), "00 00 00 00");
}

TEST(Frame, AdoptGivesBackWhatReleaseGaveAway) {
  Frame frame = Frame::copy_of("abc");
  const char* const bytes = frame.bytes().data();
  uv_write_t* const request = frame.release();
  const Frame back = Frame::adopt(request);
  EXPECT_EQ(back.bytes().data(), bytes);
  EXPECT_EQ(to_hex(back.bytes()), "03 00 00 00 61 62 63");
}

TEST(Frame, MovingKeepsTheBytesWhereTheyAre) {
  Frame frame = Frame::copy_of("abc");
  const char* const bytes = frame.bytes().data();
  const Frame moved = std::move(frame);
  EXPECT_EQ(moved.bytes().data(), bytes);
}

// The bytes in the order in which they go on the stream.
std::string on_the_stream(const Frame& frame) {
  std::string joined;
  for (const uv_buf_t& buffer : frame.buffers()) joined.append(buffer.base, buffer.len);
  return joined;
}

TEST(Frame, ALargeHeadIsTakenOverAndTheBytesAreTheSame) {
  for (const std::size_t size : {Frame::kTakeOverBytes - 1, Frame::kTakeOverBytes}) {
    std::string head;
    tolk::Encoder<std::string> encoder(head, 0);
    encoder.add_stream(std::string(size - tolk::stream_record_bytes(0), 'x'));
    ASSERT_EQ(head.size(), size);
    const auto fill = [](auto& tail) { tail.add_int(7); };
    std::string block = head;
    tolk::Encoder<std::string> whole(block, 0);
    fill(whole);
    const char* const bytes_of_head = head.data();
    const Frame frame = Frame::build_after(std::move(head), fill);
    const bool taken_over = size == Frame::kTakeOverBytes;
    EXPECT_EQ(frame.buffers().size(), taken_over ? 3u : 1u);
    if (taken_over) {
      EXPECT_TRUE(frame.buffers()[1].base == bytes_of_head);
    }
    EXPECT_EQ(frame.payload_bytes(), block.size());
    EXPECT_TRUE(on_the_stream(frame) == std::string(Frame::copy_of(block).bytes()));
  }
}

// The same bytes as when all are copied, with the large part at the start, in the middle, at the
// end.
TEST(Frame, ALargePartIsWrittenFromWhereItLies) {
  const auto owner = std::make_shared<const std::string>(100, 'x');
  for (int place = 0; place < 3; ++place) {
    const auto fill_with = [place](std::string_view large) {
      return [place, large](auto& encoder) {
        if (place > 0) encoder.add_string("before");
        place == 0 ? encoder.add_encoded(large) : encoder.add_stream(large);
        if (place < 2) encoder.add_string("behind");
      };
    };
    const std::string copied(*owner);
    const Frame all_copied = Frame::build(fill_with(copied));
    const Frame frame = Frame::build_around({owner, *owner}, fill_with(*owner));
    EXPECT_EQ(to_hex(on_the_stream(frame)), to_hex(all_copied.bytes()));
    EXPECT_EQ(frame.payload_bytes(), all_copied.payload_bytes());
    ASSERT_EQ(frame.buffers().size(), 3u);
    EXPECT_TRUE(frame.buffers()[1].base == owner->data());
  }
  EXPECT_EQ(owner.use_count(), 1);
}

TEST(Frame, SeveralLargePartsAreWrittenFromWhereTheyLie) {
  const auto first = std::make_shared<const std::string>(100, 'x');
  const auto second = std::make_shared<const std::string>(200, 'y');
  const std::vector<tolk::SharedBytes> large{{first, *first}, {second, *second}};
  const auto fill_with = [](std::string_view one, std::string_view two) {
    return [one, two](auto& to) {
      to.begin_stream(3 + one.size() + two.size());
      to.add_part("abc");
      to.add_part(one);
      to.add_part(two);
      to.end_stream();
    };
  };
  const std::string copied_first(*first);
  const std::string copied_second(*second);
  const Frame all_copied = Frame::build(fill_with(copied_first, copied_second));
  {
    const Frame frame = Frame::build_around_all(large, fill_with(*first, *second));
    EXPECT_EQ(to_hex(on_the_stream(frame)), to_hex(all_copied.bytes()));
    ASSERT_EQ(frame.buffers().size(), 4u);
    EXPECT_TRUE(frame.buffers()[1].base == first->data());
    EXPECT_TRUE(frame.buffers()[2].base == second->data());
    EXPECT_EQ(first.use_count(), 3);
  }
  EXPECT_EQ(first.use_count(), 2);
  EXPECT_EQ(second.use_count(), 2);
}

TEST(Frame, ALargePartStaysAsLongAsTheFrame) {
  auto owner = std::make_shared<const std::string>(100, 'x');
  const std::weak_ptr<const std::string> alive = owner;
  {
    const tolk::SharedBytes large{owner, *owner};
    Frame frame = Frame::build_around(large, [&](auto& to) { to.add_stream(large.view); });
    owner.reset();
    uv_write_t* const request = frame.release();
    EXPECT_FALSE(alive.expired());
    Frame::adopt(request);
  }
  EXPECT_TRUE(alive.expired());
}

TEST(Frame, PartsThatOnlyLookLikeTheLargeOneAreCopied) {
  const auto owner = std::make_shared<const std::string>(100, 'x');
  const std::string as_long(100, 'y');
  const auto fill = [&](auto& to) {
    to.add_stream(as_long);
    to.add_stream(std::string_view(*owner).substr(0, 50));
  };
  const Frame frame = Frame::build_around({owner, *owner}, fill);
  EXPECT_EQ(to_hex(frame.bytes()), to_hex(Frame::build(fill).bytes()));
}

TEST(Frame, ALargePartThatIsNotAddedIsNotWritten) {
  const auto owner = std::make_shared<const std::string>(100, 'x');
  const Frame frame = Frame::build_around({owner, *owner}, [](auto& to) { to.add_bool(true); });
  EXPECT_EQ(to_hex(frame.bytes()), "06 00 00 00 01 31 02 00 00 00");
}

}  // namespace
