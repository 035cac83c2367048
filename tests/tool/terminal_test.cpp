// What is shown on a terminal: colours and progress, and where there are none.
#include <signal.h>

#include "tests/tool/served.h"

namespace tolk::test {
namespace {

constexpr char kEscape[] = "\033[";

class ToolTerminal : public ServedTest {
 protected:
  const Given both{.out_is_terminal = true, .err_is_terminal = true};
};

TEST_F(ToolTerminal, JsonHasColoursOnATerminal) {
  const Ended ended = call({"echo", "1", "x", "k=true", "--json"}, both);
  EXPECT_EQ(ended.out,
            "[\033[33m1\033[0m,\033[32m\"x\"\033[0m,{\033[1;34m\"k\"\033[0m:\033[33mtrue\033[0m}]"
            "\r\n");
}

TEST_F(ToolTerminal, PlainTextStaysPlain) {
  EXPECT_EQ(call({"echo", "text"}, both).out, "text\r\n");
}

TEST_F(ToolTerminal, NoColorIsHeard) {
  Given given = both;
  given.environment = {"NO_COLOR=1"};
  EXPECT_EQ(call({"echo", "1", "--json"}, given).out, "1\r\n");
}

TEST_F(ToolTerminal, ColorIsDecidedByHand) {
  EXPECT_EQ(call({"echo", "1", "--color=never"}, both).out, "1\r\n");
  EXPECT_EQ(call({"echo", "1", "--color=always"}).out, "\033[33m1\033[0m\n");
  Given given;
  given.environment = {"NO_COLOR=1"};
  EXPECT_THAT(call({"echo", "1", "--color=always"}, given).out, HasSubstr(kEscape));
}

TEST_F(ToolTerminal, EachStreamHasItsOwnColours) {
  const Ended piped = call({"echo", "1"}, {.err_is_terminal = true});
  EXPECT_EQ(piped.out, "1\n");
  const Ended failed = call({"nope"}, {.err_is_terminal = true});
  EXPECT_THAT(failed.err, HasSubstr("\033[1;31mtolk: \033[0mnope at "));
  EXPECT_THAT(call({"nope"}, {.out_is_terminal = true}).err, Not(HasSubstr(kEscape)));
}

TEST_F(ToolTerminal, BytesDoNoHarmToATerminal) {
  EXPECT_EQ(call({"echo", "b:bytes=\033[2J", "--color=never"}, both).out,
            "{\"b\":{\"$base64\":\"G1sySg==\"}}\r\n");
  EXPECT_THAT(call({"echo", ":bytes=\033[2J", "--color=never"}, both).out,
              HasSubstr("\"G1sySg==\""));
}

TEST_F(ToolTerminal, TextsOfAPeerDoNoHarmToATerminal) {
  server.on("harm", []() -> int { throw std::runtime_error("\"a\"\nb\033[2Jc\xc2\x9b"); });
  server.on(
      "told", [] {}, "all\033[2J");
  EXPECT_THAT(call({"harm"}).err, HasSubstr("handler failed: \"a\"\nb\\x1b[2Jc\\xc2\\x9b\n"));
  EXPECT_THAT(tolk_command({"describe", at}).out, HasSubstr("all\\x1b[2J\n"));
  EXPECT_EQ(call({"echo", "a\tb\033[2J"}, both).out, "a\tb\\x1b[2J\r\n");
  EXPECT_EQ(call({"echo", "a\033[2J"}).out, "a\033[2J\n");
  EXPECT_EQ(call({"echo", "\x7f", "--json", "--color=never"}, both).out, "\"\\x7f\"\r\n");
}

TEST_F(ToolTerminal, BenchShowsProgressOnATerminalAlone) {
  const std::vector<std::string> words = {"bench", at, "--duration", "300ms"};
  const Ended shown = tolk_command(words, {.err_is_terminal = true});
  EXPECT_THAT(shown.err, HasSubstr(" calls"));
  EXPECT_THAT(shown.err, testing::EndsWith("\r\033[K"));
  EXPECT_THAT(shown.out, Not(HasSubstr("\r")));
  EXPECT_EQ(tolk_command(words).err, "");
  EXPECT_EQ(tolk_command({"bench", at, "--duration", "20ms", "-q"}, {.err_is_terminal = true}).err,
            "");
}

TEST_F(ToolTerminal, CtrlCEndsAServerAndACall) {
  const std::string where = fresh().text();
  Process process(tolk_words({"listen", where}), both);
  process.await("Ctrl-C ends it");
  process.type("\x03");
  EXPECT_EQ(process.end().code, 130);
}

TEST_F(ToolTerminal, QuietSaysNothing) {
  const std::string where = fresh().text();
  Process process(tolk_words({"listen", where, "-q"}));
  connect(where, {.patience = 20s}).close();
  process.signal(SIGINT);
  EXPECT_EQ(process.end().err, "");
}

}  // namespace
}  // namespace tolk::test
