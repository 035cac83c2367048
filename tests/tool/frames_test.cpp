// What the command makes of raw bytes: blocks, messages, frames, and what is none of them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tolk/TolkParams.h>

#include <algorithm>
#include <random>

#include "tests/e2e/support/golden.h"
#include "tests/e2e/support/raw_block.h"
#include "tools/tolk/wire/frame_cutter.h"
#include "tools/tolk/wire/message.h"

namespace tolk::test {
namespace {

using testing::HasSubstr;
using tool::FrameCutter;
using tool::Kind;

// A well-formed block with a record of each kind.
std::string every_record() {
  return BlockWriter()
      .add(7)
      .add(true)
      .add(2.5)
      .add(std::string("text"))
      .add(Stream{std::string("a\0b", 3)})
      .list({1, std::string("a")})
      .map({{"x", 1}, {"y", std::string("two")}})
      .keyed("name", std::string("n.txt"))
      .bytes();
}

TEST(ToolBlock, HasEveryRecordWithItsOffset) {
  const std::string bytes = every_record();
  const tool::DecodedBlock block = tool::decode_block(bytes);
  ASSERT_FALSE(block.flaw.has_value());
  ASSERT_EQ(block.records.size(), 8U);
  EXPECT_EQ(block.records[0].integer, 7);
  EXPECT_EQ(block.records[1].offset, 9U);
  EXPECT_TRUE(block.records[1].boolean);
  EXPECT_EQ(block.records[2].real, 2.5);
  EXPECT_EQ(block.records[3].bytes, "text");
  EXPECT_EQ(block.records[4].bytes, std::string_view("a\0b", 3));
  EXPECT_EQ(block.records[5].elements.size(), 2U);
  EXPECT_EQ(block.records[6].elements[1].key, "y");
  EXPECT_EQ(block.records[6].elements[1].bytes, "two");
  EXPECT_EQ(block.find("name")->bytes, "n.txt");
  EXPECT_EQ(block.find("other"), nullptr);
}

TEST(ToolBlock, ALaterKeyWinsAndAKeyWithoutValueIsForgotten) {
  const std::string twice = BlockWriter().keyed("k", 1).keyed("k", 2).bytes();
  EXPECT_EQ(tool::decode_block(twice).find("k")->integer, 2);
  const std::string lone = BlockWriter().keyed("k", 1).lone_key("k").list({}).bytes();
  EXPECT_EQ(tool::decode_block(lone).find("k"), nullptr);
}

struct Wrong {
  std::string bytes;
  std::uint64_t offset;
  std::string reason;
};

TEST(ToolBlock, SaysWhereAndWhyItIsMalformed) {
  const std::string seven("\0\7\0\0\0\5\0\0\0", 9);
  const Wrong wrongs[] = {
      {seven + "hello", 9, "0x68 does not begin a record"},
      {std::string("\0\7\0\0", 4), 0, "ends within an int"},
      {std::string("\0\7\0\0\0\6\0\0\0", 9), 5, "the check word is 6, but its offset is 5"},
      {std::string("\0\7\0\0\0\5\0", 7), 5, "ends within a check word"},
      {std::string("\3\xff\xff\xff\xff", 5), 0, "a string of -1 bytes, but 0 are left"},
      {std::string("\4\x0a\0\0\0abc", 8), 0, "a stream of 10 bytes, but 3 are left"},
      {std::string("\5\0", 2), 1, "a key is a string, not 0x00"},
      {std::string("\6\2\0\0\0", 5), 5, "a list of 2, but the block ends after 0"},
      {BlockWriter().lone_key("k").bytes(), 11, "ends after a key"},
  };
  for (const Wrong& wrong : wrongs) {
    const tool::DecodedBlock block = tool::decode_block(wrong.bytes);
    ASSERT_TRUE(block.flaw.has_value()) << wrong.reason;
    EXPECT_EQ(block.flaw->offset, wrong.offset) << wrong.reason;
    EXPECT_THAT(block.flaw->reason, HasSubstr(wrong.reason));
  }
}

// Blocks that are broken in every place in several ways: both readers agree on which are well
// formed, on how many values these have, and on what is found under the key.
TEST(ToolBlock, AgreesWithTheLibraryOnWhatIsMalformed) {
  const std::string whole = every_record();
  const auto compare = [](const std::string& bytes) {
    TolkParams params;
    const bool good = params.Parser(bytes.data(), static_cast<int>(bytes.size()));
    const tool::DecodedBlock block = tool::decode_block(bytes);
    ASSERT_EQ(!block.flaw.has_value(), good) << to_hex(bytes);
    ASSERT_EQ(block.find("name") != nullptr, params.GetMap("name") != nullptr) << to_hex(bytes);
    if (!good) return;
    const auto values = std::count_if(block.records.begin(), block.records.end(),
                                      [](const auto& record) { return !record.key; });
    ASSERT_EQ(values, params.ParamsSize()) << to_hex(bytes);
  };
  for (std::size_t size = 0; size <= whole.size(); ++size) compare(whole.substr(0, size));
  std::mt19937 random(1);  // the same changes each time
  for (int round = 0; round < 20000; ++round) {
    std::string broken = whole;
    for (unsigned long changes = 1 + random() % 3; changes > 0; --changes) {
      broken[random() % broken.size()] = static_cast<char>(random() % 12);
    }
    compare(broken);
  }
}

std::string payload_of(std::string_view name) { return golden(name).substr(4); }

TEST(ToolMessage, TellsCallsPostsRepliesAndPieces) {
  const std::string call = payload_of("call");
  const tool::Message seen = tool::decode_message(call);
  EXPECT_EQ(seen.kind, Kind::call);
  EXPECT_EQ(seen.method, "sum");
  EXPECT_EQ(seen.call_id, 5);
  EXPECT_EQ(seen.token, "0x1");
  ASSERT_EQ(seen.arguments.records.size(), 2U);
  EXPECT_EQ(seen.arguments.records[0].integer, 7);

  EXPECT_EQ(tool::decode_message(payload_of("posted_call")).kind, Kind::post);
  const std::string reply = payload_of("server_reply");
  EXPECT_EQ(tool::decode_message(reply).kind, Kind::reply);
  EXPECT_TRUE(tool::decode_message(reply).token.has_value());
  EXPECT_EQ(tool::decode_message(payload_of("large_piece")).kind, Kind::piece);
  EXPECT_EQ(tool::decode_message({}).kind, Kind::nameless);
}

TEST(ToolMessage, APieceOfTheLayerIsCalledAsItsMethod) {
  const std::string inner = BlockWriter().keyed("tolk.method", std::string("upload")).bytes();
  const std::string payload = call_payload("tolk.piece", 3, inner, "0x1");
  const tool::Message piece = tool::decode_message(payload);
  EXPECT_EQ(piece.kind, Kind::piece);
  EXPECT_EQ(piece.method, "upload");
}

TEST(ToolMessage, AReplyTellsWhyItsCallFailed) {
  const std::string reply = payload_of("server_no_method_reply");
  EXPECT_THAT(tool::failure_in(tool::decode_message(reply)), testing::StartsWith("no event: "));
  const std::string good = payload_of("server_reply");
  EXPECT_EQ(tool::failure_in(tool::decode_message(good)), "");
  BlockWriter error;
  error.keyed("s_c_sw_name", std::string("retval")).keyed("tolk.error", std::string("no disk"));
  EXPECT_EQ(tool::failure_in(tool::decode_message(error.bytes())), "no disk");
}

// The payloads of the frames that `cutter` has, and "kept 0" for one that was not kept.
std::vector<std::string> cut(FrameCutter& cutter) {
  std::vector<std::string> payloads;
  while (const auto frame = cutter.next()) {
    payloads.push_back(frame->kept() ? std::string(frame->payload())
                                     : "not kept, " + std::to_string(frame->size));
  }
  return payloads;
}

TEST(FrameCutter, CutsWhateverWayTheBytesCome) {
  const std::string stream = frame("first") + frame("") + frame("third");
  for (std::size_t step = 1; step <= stream.size(); ++step) {
    FrameCutter cutter;
    std::vector<std::string> payloads;
    for (std::size_t at = 0; at < stream.size(); at += step) {
      cutter.add(std::string_view(stream).substr(at, step));
      for (std::string& payload : cut(cutter)) payloads.push_back(std::move(payload));
    }
    EXPECT_THAT(payloads, testing::ElementsAre("first", "", "third")) << step;
    EXPECT_FALSE(cutter.missing().has_value());
  }
}

TEST(FrameCutter, StopsAtALengthThatCanBeNone) {
  FrameCutter cutter;
  cutter.add(frame("good") + prefix(-5) + "more");
  EXPECT_THAT(cut(cutter), testing::ElementsAre("good"));
  ASSERT_TRUE(cutter.lost().has_value());
  EXPECT_EQ(cutter.lost()->offset, 8U);
  EXPECT_THAT(cutter.lost()->reason, HasSubstr("-5"));
  EXPECT_EQ(cutter.rest(), prefix(-5) + "more");
}

TEST(FrameCutter, SeesTextOfAnotherProtocolAtOnce) {
  FrameCutter cutter;
  cutter.add("GET / HTTP/1.1\r\n");
  EXPECT_FALSE(cutter.next().has_value());
  ASSERT_TRUE(cutter.lost().has_value());
  EXPECT_THAT(cutter.lost()->reason, HasSubstr("does not begin with a record"));
}

TEST(FrameCutter, CountsAFrameThatIsTooLargeToKeep) {
  FrameCutter cutter(100);
  const std::string large = frame(std::string(200, '\0'));
  cutter.add(large.substr(0, 4));
  cutter.add(large.substr(4, 50));
  EXPECT_THAT(cut(cutter), testing::IsEmpty());
  EXPECT_LE(cutter.rest().size(), 4U);
  EXPECT_THAT(cutter.missing()->reason,
              HasSubstr("a frame of 204 bytes, of which 150 are missing"));
  cutter.add(large.substr(54) + frame("next"));
  EXPECT_THAT(cut(cutter), testing::ElementsAre("not kept, 204", "next"));
}

TEST(FrameCutter, SaysWhatIsMissingAtTheEnd) {
  FrameCutter cutter;
  cutter.add(frame("good") + frame("cut off").substr(0, 6));
  EXPECT_THAT(cut(cutter), testing::ElementsAre("good"));
  ASSERT_TRUE(cutter.missing().has_value());
  EXPECT_EQ(cutter.missing()->offset, 8U);
  EXPECT_THAT(cutter.missing()->reason, HasSubstr("a frame of 11 bytes, of which 5 are missing"));
}

}  // namespace
}  // namespace tolk::test
