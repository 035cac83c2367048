// Every exit code, and what the errors say: method, address, what happened, what to try.
#include <signal.h>

#include "tests/tool/served.h"

namespace tolk::test {
namespace {

class ToolExit : public ServedTest {};

// "tolk: METHOD at ADDRESS: WHAT", and a line that says what to try.
void expect_error(const Ended& ended, int code, const std::string& method_at_address,
                  const std::string& what, const std::string& hint) {
  EXPECT_EQ(ended.code, code);
  EXPECT_EQ(ended.out, "");
  EXPECT_THAT(ended.err, StartsWith("tolk: " + method_at_address + ": "));
  EXPECT_THAT(ended.err, HasSubstr(what));
  EXPECT_THAT(ended.err, HasSubstr("\ntry: "));
  EXPECT_THAT(ended.err, HasSubstr(hint));
}

TEST_F(ToolExit, Ok) { EXPECT_EQ(call({"add", "1", "2"}).code, 0); }

TEST_F(ToolExit, UsageIsTwo) {
  const Ended none = tolk_command({});
  EXPECT_EQ(none.code, 2);
  EXPECT_THAT(none.err, HasSubstr("try: tolk --help"));
  const Ended missing = tolk_command({"call", at});
  EXPECT_EQ(missing.code, 2);
  EXPECT_THAT(missing.err, AllOf(HasSubstr("METHOD"), HasSubstr("try: tolk call --help")));
  const Ended unknown = tolk_command({"call", at, "add", "--bogus"});
  EXPECT_EQ(unknown.code, 2);
  EXPECT_EQ(unknown.err, "tolk: unexpected argument: --bogus\ntry: tolk call --help\n");
  const Ended two = tolk_command({"ping", at, "-n", "2"});
  EXPECT_EQ(two.code, 2);
  EXPECT_EQ(two.err, "tolk: unexpected arguments: -n 2\ntry: tolk ping --help\n");
  const Ended options = tolk_command({"serve", fresh().text(), "count", "wc", "-c"});
  EXPECT_EQ(options.code, 2);
  EXPECT_THAT(options.err, HasSubstr("try: write -- before the command to run\n"));
  const Ended word = tolk_command({"lst"});
  EXPECT_EQ(word.code, 2);
  EXPECT_EQ(word.err,
            "tolk: there is no subcommand lst\ntry: did you mean list? tolk help lists all\n");
  EXPECT_EQ(tolk_command({"bogus"}).err,
            "tolk: there is no subcommand bogus\ntry: tolk help lists all\n");
  const Ended option = tolk_command({"call", at, "add", "--tiemout=5s"});
  EXPECT_EQ(option.code, 2);
  EXPECT_EQ(option.err,
            "tolk: unexpected argument: --tiemout=5s\n"
            "try: did you mean --timeout? tolk call --help\n");
  const Ended time = tolk_command({"call", at, "add", "--timeout", "-5"});
  EXPECT_EQ(time.code, 2);
  EXPECT_THAT(time.err,
              AllOf(HasSubstr("--timeout: \"-5\" is not a duration"), HasSubstr("500ms")));
  EXPECT_THAT(tolk_command({"ping", at, "-i", "5"}).err, HasSubstr("--interval: \"5\" is not"));
  EXPECT_THAT(tolk_command({"bench", "--duration", "5"}).err,
              HasSubstr("--duration: \"5\" is not"));
}

TEST_F(ToolExit, NumbersAndNamesThatAreNoneAreUsage) {
  for (const char* const command : {"ping", "listen", "receive"}) {
    for (const char* const count : {"abc", "-1", "1.5", "3000000000"}) {
      const Ended ended = tolk_command({command, at, "-c", count});
      EXPECT_EQ(ended.code, 2);
      EXPECT_EQ(ended.err, "tolk: --count: \"" + std::string(count) +
                               "\" is not a whole number from 0 to 2147483647\ntry: tolk " +
                               command + " --help\n");
    }
  }
  for (const char* const command : {"call", "post"}) {
    const Ended ended = tolk_command({command, at, ""});
    EXPECT_EQ(ended.code, 2);
    EXPECT_THAT(ended.err,
                StartsWith("tolk: METHOD: the name of a method must not be empty\ntry: "));
  }
  for (const char* const time : {"none", "0s"}) {
    const Ended ended = tolk_command({"bench", at, "--duration", time});
    EXPECT_EQ(ended.code, 2);
    EXPECT_THAT(ended.err,
                HasSubstr("\"" + std::string(time) + "\" is not a duration to measure for"));
  }
  const std::string where = fresh().text();
  for (const char* const name : {"tolk.x", "s_c_x", "retval"}) {
    expect_error(tolk_command({"serve", where, name, "--", "cat"}), 2, name + (" at " + where), "",
                 "choose another name");
  }
}

TEST_F(ToolExit, BadArgumentsAreUsage) {
  const std::string where = "echo at " + at;
  expect_error(call({"echo", "18446744073709551616"}), 2, where, "does not fit in 64 bits",
               ":string=18446744073709551616");
  expect_error(call({"echo", "n:int=x"}), 2, where, "argument n:int=x: not an integer of 64 bits",
               "whole number");
  expect_error(call({"echo", "n:long=5"}), 2, where, "there is no type \"long\"", "double");
  expect_error(call({"echo", ":json=1e999"}), 2, where, "number overflow parsing '1e999'", "quote");
  expect_error(call({"echo", "s_c_x=1"}), 2, where,
               "argument s_c_x=1: a key must not begin with s_c_ or tolk.", "another key");
  expect_error(call({"echo", "@/nowhere"}), 2, where, "/nowhere: No such file", ":string=@");
  expect_error(call({"echo", "--json", "{bad"}), 2, where, "not valid JSON from character 2",
               "--json alone is about the output");
  expect_error(call({"echo", "--json=short"}), 2, where, "not valid JSON", "--json alone");
  expect_error(call({"echo", "1", "--json", "[1]"}), 2, where, "given twice", "by --json");
}

TEST_F(ToolExit, ABadAddressIsUsage) {
  expect_error(tolk_command({"call", "5000x", "add"}), 2, "add at 5000x", "an address is pipe:NAME",
               "tcp4:127.0.0.1:5000");
}

TEST_F(ToolExit, CannotConnectIsThree) {
  const std::string nowhere = fresh().text();
  for (const char* const command : {"call", "post"}) {
    expect_error(tolk_command({command, nowhere, "add"}), 3, "add at " + nowhere,
                 "not connected: nobody listens there", "start the server first");
  }
  expect_error(tolk_command({"describe", nowhere}), 3, "describe at " + nowhere, "nobody listens",
               "start the server");
  expect_error(tolk_command({"ping", nowhere}), 3, "ping at " + nowhere, "nobody listens",
               "start the server");
  expect_error(tolk_command({"bench", nowhere}), 3, "bench at " + nowhere, "nobody listens",
               "start the server");
  expect_error(tolk_command({"bench", nowhere, "add"}), 3, "add at " + nowhere, "nobody listens",
               "start the server");
}

TEST_F(ToolExit, TimedOutIsFour) {
  const Ended ended = call({"slow", "--timeout", "1500ms"});
  expect_error(ended, 4, "slow at " + at, "timed out after 1500 ms", "--timeout 30s");
}

TEST_F(ToolExit, ATimeOutThatIsNotGivenIsFiveSeconds) {
  expect_error(call({"slow"}), 4, "slow at " + at, "timed out after 5000 ms", "--timeout 30s");
}

TEST_F(ToolExit, AServerThatTakesConnectionsAndIsSilentIsATimeOut) {
  const auto where = fresh_address(test::Transport::pipe);
  RawListener silent(where);
  expect_error(tolk_command({"call", where.port, "add", "--timeout", "100ms"}), 4,
               "add at pipe:" + where.port, "did not answer within 100 ms",
               "check what listens there, it may not be a server of this library");
}

// A refused connect takes the library longer than that.
TEST_F(ToolExit, NobodyListensIsThreeAlsoWithAShortTimeOut) {
  const std::string nowhere = fresh().text();
  for (const std::string& address :
       {nowhere, layered(fresh_address(test::Transport::tcp4)).text()}) {
    expect_error(tolk_command({"call", address, "add", "--timeout", "100ms"}), 3,
                 "add at " + address, "nobody listens there",
                 address == nowhere ? "tolk list" : "the address and the port");
  }
  expect_error(tolk_command({"ping", nowhere, "--timeout", "1ms"}), 3, "ping at " + nowhere,
               "nobody listens", "start the server");
}

TEST_F(ToolExit, NoSuchMethodIsFive) {
  expect_error(call({"nope", "1"}), 5, "nope at " + at, "there is no such method",
               "tolk describe " + at);
}

TEST_F(ToolExit, HandlerFailedIsSix) {
  expect_error(call({"fail"}), 6, "fail at " + at, "handler failed: the disk is full",
               "the handler's own");
  expect_error(call({"add", "1"}), 6, "add at " + at, "wrong arguments: takes 2 arguments, got 1",
               "tolk describe");
}

TEST_F(ToolExit, RefusedVersionIsSeven) {
  const auto where = fresh_address(test::Transport::pipe);
  RawServer refuses(where, refusing());
  expect_error(tolk_command({"call", where.port, "add"}), 7, "add at pipe:" + where.port,
               "refused: the server is of another version", "the same version");
}

TEST_F(ToolExit, AServerThatHangsUpIsThree) {
  const auto where = fresh_address(test::Transport::pipe);
  RawServer leaves(where, hanging_up());
  expect_error(tolk_command({"call", where.port, "add"}), 3, "add at pipe:" + where.port,
               "went away", "connect again");
}

TEST_F(ToolExit, InterruptedIs130) {
  for (const int signal : {SIGINT, SIGTERM}) {
    Process process(tolk_words({"call", at, "slow", "--timeout", "none"}));
    EXPECT_TRUE(slow_begun.wait_for(signal == SIGINT ? 1 : 2));
    process.signal(signal);
    const Ended ended = process.end();
    EXPECT_EQ(ended.code, 130);
    EXPECT_EQ(ended.out + ended.err, "");
  }
}

TEST_F(ToolExit, InterruptedServersTakeTheirSocketsAway) {
  const std::string where = fresh().text();
  for (const int signal : {SIGINT, SIGTERM}) {
    Process process(tolk_words({"listen", where}));
    process.await("listening at " + where);
    process.signal(signal);
    EXPECT_EQ(process.end().code, 130);
  }
}

TEST_F(ToolExit, AnAddressThatIsTakenIsOne) {
  expect_error(tolk_command({"serve", at, "now", "--", "date"}), 1, "now at " + at,
               "address already in use", "choose another");
  expect_error(tolk_command({"listen", at}), 1, "listen at " + at, "address already in use",
               "choose another");
}

TEST_F(ToolExit, OutputThatNobodyTakesIsOne) {
  Process process({"/bin/sh", "-c", "tolk call " + at + " add 1 2 >/dev/full; echo code $?"});
  const Ended ended = process.end();
  EXPECT_EQ(ended.out, "code 1\n");
  EXPECT_THAT(ended.err, StartsWith("tolk: add at " + at +
                                    ": cannot write to standard output: No space left"));
  for (const std::string words : {"--version", "--help", "call --help"}) {
    for (const std::string closed : {">/dev/full", ">&-"}) {
      Process told({"/bin/sh", "-c", "tolk $0 " + closed + "; echo code $? >&2", words});
      EXPECT_THAT(
          told.end().err,
          MatchesRegex("tolk: cannot write to standard output: [A-Za-z ]+\ntry: check where "
                       "standard output goes\ncode 1\n"))
          << words << closed;
    }
  }
}

}  // namespace
}  // namespace tolk::test
