// tolk serve: calls that a command answers.
#include <signal.h>

#include "tests/tool/served.h"

namespace tolk::test {
namespace {

class ToolServe : public testing::Test {
 protected:
  // Serves `method` until the test ends.
  void serve(std::vector<std::string> words) {
    std::vector<std::string> all = {"serve", at, "method"};
    all.insert(all.end(), words.begin(), words.end());
    process = std::make_unique<Process>(tolk_words(all));
    process->await("listening at " + at);
    client.connect(at);
  }

  const std::string at = fresh().text();
  std::unique_ptr<Process> process;
  Client client;
};

TEST_F(ToolServe, GivesTheArgumentsAsJsonAndTakesJsonAsTheResult) {
  serve({"--", "sh", "-c", "cat >&2; echo 42"});
  EXPECT_EQ(client.call<int>("method", 1, "x", arg("k", 2.0)).value(), 42);
}

TEST_F(ToolServe, TheLibrarysLinesNameEachClient) {
  process = std::make_unique<Process>(tolk_words({"serve", at, "method", "-v", "--", "cat"}));
  process->await("listening at " + at);
  client.connect(at);
  process->await("client 1 connected from ");
  const Client another = connect(at);
  process->await("client 2 connected from ");
}

TEST_F(ToolServe, TheCommandSeesAnArrayWithKeysAtItsEnd) {
  serve({"--", "sed", "s/.*/text: &/"});
  EXPECT_EQ(client.call<std::string>("method", 1, "x", arg("k", 2.0)).value(),
            R"(text: [1,"x",{"k":2.0}])");
  EXPECT_EQ(client.call<std::string>("method").value(), "text: []");
}

TEST_F(ToolServe, AnArrayIsAListAndAnObjectIsKeyedValues) {
  serve({"--", "sh", "-c",
         "read line; case $line in *list*) echo '[1, 2]' ;; *) echo '{\"a\": 1}'; esac"});
  EXPECT_EQ(client.call<std::vector<int>>("method", "list").value(), (std::vector<int>{1, 2}));
  const Values keyed = client.call<Values>("method", "keys").value();
  EXPECT_EQ(keyed.size(), 0U);
  EXPECT_EQ(keyed.at("a"), Value(1));
}

TEST_F(ToolServe, InnerListsPassThroughAsTheyAre) {
  serve({"--", "cat"});
  const std::string json = R"([[1,{"b":2}]])";
  EXPECT_EQ(tolk_command({"call", at, "method", "--json=" + json}).out, json + "\n");
}

TEST_F(ToolServe, WhatIsNoJsonThatTravelsIsAText) {
  serve({"--", "echo", "[1.5e400]"});
  EXPECT_EQ(client.call<std::string>("method").value(), "[1.5e400]");
}

TEST_F(ToolServe, ACommandThatFailsIsAFailedHandlerWithItsText) {
  serve({"--", "sh", "-c", "echo result; echo 'no such file' >&2; exit 3"});
  const auto result = client.call<int>("method");
  ASSERT_FALSE(result);
  EXPECT_EQ(result.error().code(), Errc::handler_failed);
  EXPECT_EQ(result.error().detail(), "no such file");
  process->signal(SIGINT);
  EXPECT_THAT(process->end().err,
              MatchesRegex(".*\nclient -?[0-9]+: method: failed: no such file\n"));
}

TEST_F(ToolServe, ACommandThatFailsSilentlyIsNamed) {
  serve({"--", "false"});
  EXPECT_EQ(client.call<int>("method").error().detail(), "false ended with code 1");
}

TEST_F(ToolServe, ACommandThatTakesTooLongIsEnded) {
  serve({"--timeout", "100ms", "--", "sleep", "1000"});
  EXPECT_EQ(client.call<int>("method").error().detail(),
            "sleep took longer than 100 ms and was ended");
}

TEST_F(ToolServe, ACommandThatDoesNotReadIsServedAllTheSame) {
  serve({"--", "echo", "done"});
  EXPECT_EQ(client.call<std::string>("method", std::string(1 << 20, 'x')).value(), "done");
}

TEST_F(ToolServe, MuchGoesThroughInBothDirections) {
  serve({"--", "cat"});
  const std::string text(1 << 20, 'x');
  EXPECT_EQ(client.call<std::vector<std::string>>("method", text).value(),
            std::vector<std::string>{text});
}

TEST_F(ToolServe, TheEndEndsTheCommandThatRuns) {
  serve({"-v", "--", "sleep", "1000"});
  auto waiting = client.async<int>("method");
  process->await("method []");
  process->signal(SIGINT);
  EXPECT_EQ(process->end().code, 130);
  EXPECT_THROW(waiting.get(), Error);
}

TEST_F(ToolServe, AClientMayStopIt) {
  serve({"--", "date"});
  (void)client.call<bool>("s_c_close_server");
  const Ended ended = process->end();
  EXPECT_EQ(ended.code, 0);
  EXPECT_THAT(ended.err, HasSubstr("a client has stopped the server"));
}

TEST_F(ToolServe, SeveralMethodsHaveACommandEach) {
  process = std::make_unique<Process>(
      tolk_words({"serve", at, "upper=tr a-z A-Z", "count=wc -w", "equal=printf '%s' a=b"}));
  process->await("listening at " + at);
  client.connect(at);
  EXPECT_EQ(client.call<std::vector<std::string>>("upper", "a b").value(),
            std::vector<std::string>{"A B"});
  EXPECT_EQ(client.call<int>("count", "a b").value(), 2);
  EXPECT_EQ(client.call<std::string>("equal").value(), "a=b");
  EXPECT_THAT(tolk_command({"describe", at}).out, HasSubstr("runs tr a-z A-Z\n"));
}

TEST_F(ToolServe, AMethodWithoutACommandIsNamed) {
  for (const std::vector<std::string>& words :
       std::vector<std::vector<std::string>>{{"upper"}, {"now=date", "upper"}}) {
    std::vector<std::string> all = {"serve", at};
    all.insert(all.end(), words.begin(), words.end());
    const Ended ended = tolk_command(all);
    EXPECT_EQ(ended.code, 2);
    EXPECT_EQ(ended.err, "tolk: upper at " + at +
                             ": there is no command for it\ntry: write METHOD -- COMMAND, or "
                             "METHOD='COMMAND' for each of several methods\n");
  }
}

TEST_F(ToolServe, AMissingProgramIsSaidAtOnce) {
  const Ended ended = tolk_command({"serve", at, "method", "--", "no-such-program"});
  EXPECT_EQ(ended.code, 2);
  EXPECT_THAT(ended.err,
              StartsWith("tolk: method at " + at + ": there is no program no-such-program\ntry: "));
}

}  // namespace
}  // namespace tolk::test
