// tolk dump: what it shows of blocks and frames, and of what is neither.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>

#include "tests/e2e/support/golden.h"
#include "tests/e2e/support/raw_block.h"
#include "tests/tool/served.h"

namespace tolk::test {
namespace {

using Json = nlohmann::json;

Ended dump(const std::string& bytes, std::vector<std::string> words = {}, bool terminal = false) {
  words.insert(words.begin(), "dump");
  return tolk_command(std::move(words), {.out_is_terminal = terminal, .input = bytes});
}

TEST(ToolDump, ShowsABlockRecordByRecord) {
  const std::string inner = BlockWriter().keyed("x", 1).bytes();
  const std::string block = BlockWriter()
                                .add(-7)
                                .add(false)
                                .add(2.5)
                                .add(std::string("a\nb\x1b"))
                                .list({1, std::string("two")})
                                .map({{"key", true}})
                                .keyed("data", Stream{inner})
                                .bytes();
  const Ended ended = dump(block);
  EXPECT_EQ(ended.code, 0);
  EXPECT_EQ(ended.err, "");
  EXPECT_EQ(
      ended.out,
      "       0  int -7\n"
      "       9  bool false\n"
      "      15  double 2.5\n"
      "      28  string \"a\\nb\\x1b\"\n"
      "      41  list of 2\n"
      "      46    int 1\n"
      "      55    string \"two\"\n"
      "      67  map of 1\n"
      "      72    key = bool true\n"
      "      91  data = stream of 20: 05 03 01 00 00 00 78 07 00 00 00 00 01 00 00 00 10 00 00 00\n"
      "     110    x = int 1\n");
}

TEST(ToolDump, ShowsFramesWithTheirMessages) {
  const Ended ended = dump(golden("call") + golden("server_no_method_reply"));
  EXPECT_EQ(ended.code, 0);
  EXPECT_THAT(ended.out, StartsWith("       0  frame 1, 162 bytes: call sum, id 5, token 0x1\n"
                                    "       4    s_c_sw_name = string \"sum\"\n"));
  EXPECT_THAT(ended.out, HasSubstr("\n      97      int 7\n     106      ok = bool true\n"));
  EXPECT_THAT(ended.out,
              HasSubstr("\n     162  frame 2, 130 bytes: reply, id 5, token 0x1, failed\n"
                        "     166    string \"no event: foo\"\n"));
}

TEST(ToolDump, FindsOutWhatItIsUnlessItIsSaid) {
  const std::string block = BlockWriter().add(7).bytes();
  EXPECT_THAT(dump(block).out, StartsWith("       0  int 7"));
  EXPECT_THAT(dump(frame(block)).out, StartsWith("       0  frame 1"));
  EXPECT_THAT(dump(frame(block) + frame("?")).out, HasSubstr("frame 2"));
  EXPECT_THAT(dump(frame(block) + "?").out, HasSubstr("frame 1"));
  EXPECT_EQ(dump(frame(block), {"--block"}).code, 1);
  EXPECT_EQ(dump(block, {"--frames"}).code, 1);
  EXPECT_EQ(dump("").out, "");
  EXPECT_EQ(dump("").code, 0);
  EXPECT_EQ(dump(block, {"--frames", "--block"}).code, 2);
}

TEST(ToolDump, SaysWhichByteIsNoneAndWhy) {
  const Ended text = dump("hello\n");
  EXPECT_EQ(text.code, 1);
  EXPECT_EQ(text.out, "       0  malformed: 0x68 does not begin a record\n");
  EXPECT_THAT(text.err,
              HasSubstr("not a well-formed block: at byte 0: 0x68 does not begin a record"));

  std::string broken = golden("call");
  broken[58] = 'X';  // in the check word of a key
  const Ended wrong = dump(golden("call") + broken);
  EXPECT_EQ(wrong.code, 1);
  EXPECT_THAT(wrong.out, HasSubstr("malformed: the check word is"));
  EXPECT_THAT(wrong.err, HasSubstr("not well-formed frames: at byte 220: the check word is"));

  const Ended cut_off = dump(golden("call") + golden("call").substr(0, 100));
  EXPECT_EQ(cut_off.code, 1);
  EXPECT_THAT(cut_off.err, HasSubstr("at byte 162: a frame of 162 bytes, of which 62 are missing"));

  const Ended negative = dump(golden("call") + prefix(-9) + "rest");
  EXPECT_THAT(negative.err, HasSubstr("at byte 162: the length of a frame is -9"));
}

TEST(ToolDump, ArgumentsThatAreMalformedCountToo) {
  const std::string payload = call_payload("add", 1, "?", "0x1");
  const Ended ended = dump(frame(payload));
  EXPECT_EQ(ended.code, 1);
  EXPECT_THAT(ended.out, HasSubstr("malformed: 0x3f does not begin a record"));
}

TEST(ToolDump, WhatLooksLikeSomethingElseIsToldHow) {
  EXPECT_THAT(dump("00 07 00 00 00 05 00 00 00\n").err, HasSubstr("try: give --hex"));
  EXPECT_THAT(dump("zz", {"--frames"}).err, Not(HasSubstr("--hex")));
  EXPECT_THAT(dump("\x0a\x0d\x0d\x0a and so on").err, HasSubstr("try: open it with Wireshark"));
}

TEST(ToolDump, ReadsHexadecimalWithComments) {
  const std::string file = std::string(TOLK_GOLDEN_DIRECTORY) + "/call.hex";
  EXPECT_THAT(tolk_command({"dump", "--hex", file}).out, HasSubstr("call sum, id 5"));
  const Ended odd = dump("00 0", {"--hex"});
  EXPECT_EQ(odd.code, 1);
  EXPECT_THAT(odd.err, HasSubstr("half a byte"));
  EXPECT_THAT(dump("0x", {"--hex"}).err, HasSubstr("not a hexadecimal digit: x"));
}

TEST(ToolDump, GivesJson) {
  const Ended frames = dump(golden("call") + golden("server_reply"), {"--json"});
  const std::size_t end = frames.out.find('\n');
  const Json call = Json::parse(frames.out.substr(0, end));
  EXPECT_EQ(call["method"], "sum");
  EXPECT_EQ(call["arguments"], Json::parse("[7, {\"ok\": true}]"));
  EXPECT_EQ(Json::parse(frames.out.substr(end))["kind"], "reply");
  EXPECT_EQ(dump(BlockWriter().add(7).list({1, 2}).bytes(), {"--json"}).out, "[7,[1,2]]\n");
  EXPECT_EQ(dump(golden("call").substr(0, 30), {"--frames", "--json"}).code, 1);
}

TEST(ToolDump, HasColoursOnATerminal) {
  const std::string block = BlockWriter().keyed("x", 1).bytes();
  EXPECT_EQ(dump(block, {}, true).out,
            "\033[2m       0\033[0m  \033[1;34mx\033[0m = int \033[33m1\033[0m\r\n");
  EXPECT_THAT(dump(block).out, Not(HasSubstr("\033")));
  EXPECT_THAT(dump(block, {"--color=always"}).out, HasSubstr("\033[33m1"));
  EXPECT_THAT(dump("?", {}, true).out, HasSubstr("\033[1;31mmalformed\033[0m: "));
}

TEST(ToolDump, NothingOfTheInputReachesATerminalAsItIs) {
  const std::string evil = "\033[2J\a\x7f\xc2\x9b\xff";
  const std::string block = BlockWriter().add(evil).keyed(evil, 1).bytes();
  const Ended ended = dump(block, {"--color=never"}, true);
  EXPECT_EQ(ended.out.find_first_of("\033\a\x7f\xff"), std::string::npos);
  EXPECT_THAT(ended.out, HasSubstr("\"\\x1b[2J\\x07\\x7f\\xc2\\x9b\\xff\""));
}

TEST(ToolDump, AFileThatIsNotThereIsNamed) {
  const Ended ended = tolk_command({"dump", "/nowhere/x.bin"});
  EXPECT_NE(ended.code, 0);
  EXPECT_THAT(ended.err, HasSubstr("/nowhere/x.bin"));
}

}  // namespace
}  // namespace tolk::test
