// Arguments as they are written, results as they are printed, and nothing else on standard output.
#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include "tests/tool/served.h"

namespace tolk::test {
namespace {

class ToolCall : public ServedTest {
 protected:
  // What the server was given, as it tells it back.
  std::string echoed(std::vector<std::string> words, const Given& given = {}) const {
    words.insert(words.begin(), {"echo", "--json"});
    const Ended ended = call(std::move(words), given);
    EXPECT_EQ(ended.code, 0) << ended.err;
    EXPECT_EQ(ended.err, "");
    return ended.out;
  }
};

TEST_F(ToolCall, PrintsTheResultAndNothingElse) {
  const Ended ended = call({"add", "2", "3"});
  EXPECT_EQ(ended.out, "5\n");
  EXPECT_EQ(ended.err, "");
  EXPECT_EQ(ended.code, 0);
}

TEST_F(ToolCall, PrintsNothingWhereThereIsNoResult) {
  EXPECT_EQ(call({"nothing"}).out, "");
  EXPECT_EQ(call({"nothing", "--json"}).out, "null\n");
}

TEST_F(ToolCall, ShowsTheLibrarysLinesOnlyWhenAskedAndNeverAmongTheData) {
  const Ended ended = call({"add", "2", "3", "-v"});
  EXPECT_EQ(ended.out, "5\n");
  EXPECT_THAT(ended.err, HasSubstr(": connected"));
}

TEST_F(ToolCall, FindsTheTypesOfWords) {
  EXPECT_EQ(echoed({"3", "-3", "2.5", "-.5", "1e3", "true", "false", "text"}),
            "[3,-3,2.5,-0.5,1000.0,true,false,\"text\"]\n");
}

TEST_F(ToolCall, LeavesWordsAloneThatOnlyBeginLikeOthers) {
  EXPECT_EQ(echoed({"10.0.0.1", "[a,b]", "a b=c", "http://x/?q=1", "@", "3rd", "list"}),
            R"(["10.0.0.1","[a,b]","a b=c","http://x/?q=1","@","3rd","list"])"
            "\n");
}

TEST_F(ToolCall, TakesKeysAndTypes) {
  EXPECT_EQ(echoed({"1", "name=text", "n=5", "d:double=5", "s:string=5", ":string=a=b"}),
            R"([1,"a=b",{"d":5.0,"n":5,"name":"text","s":"5"}])"
            "\n");
  EXPECT_EQ(echoed({"b:bytes=hi", "l:json=[1,\"x\"]"}), R"({"b":{"$base64":"aGk="},"l":[1,"x"]})"
                                                        "\n");
}

TEST_F(ToolCall, TakesBytesOfFilesAndOfStandardInput) {
  char name[] = "/tmp/tolk-test-XXXXXX";
  close(mkstemp(name));
  std::ofstream(name) << "from a file";
  EXPECT_EQ(echoed({"@" + std::string(name)}), "{\"$base64\":\"ZnJvbSBhIGZpbGU=\"}\n");
  EXPECT_EQ(echoed({"@-"}, {.input = "hi"}), "{\"$base64\":\"aGk=\"}\n");
  unlink(name);
}

TEST_F(ToolCall, WritesBytesAsTheyAreWhereNoTerminalIs) {
  const Ended ended = call({"echo", "@-"}, {.input = std::string("\0\n\xff", 3)});
  EXPECT_EQ(ended.out, std::string("\0\n\xff", 3));
}

TEST_F(ToolCall, ReadsJsonArguments) {
  EXPECT_EQ(echoed({"--json", "[1, \"x\", {\"k\": 2.0}]"}), "[1,\"x\",{\"k\":2.0}]\n");
  EXPECT_EQ(call({"echo", "--json=\"x\""}).out, "\"x\"\n");
  EXPECT_EQ(call({"echo", "--json=-"}, {.input = "\"x\""}).out, "\"x\"\n");
  EXPECT_EQ(echoed({"--json={\"k\": [1, 2]}"}), "{\"k\":[1,2]}\n");
  EXPECT_EQ(echoed({"--json", "-"}, {.input = "[-4]"}), "-4\n");
  EXPECT_EQ(echoed({"--json", "[[1, 2], 3]"}), "[[1,2],3]\n");
}

TEST_F(ToolCall, NullIsAnAbsentValueAndMovesNoOther) {
  server.on("scaled", [](std::optional<int> by, int number) { return by.value_or(10) * number; });
  for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
           {":json=null", "2"}, {"--json=[null,2]"}, {"--json", "[null, 2]"}}) {
    std::vector<std::string> all = {"scaled"};
    all.insert(all.end(), words.begin(), words.end());
    const Ended ended = call(all);
    EXPECT_EQ(ended.out, "20\n") << words[0] << ended.err;
  }
  EXPECT_EQ(echoed({":json=null", "2"}), "[null,2]\n");
  EXPECT_EQ(echoed({":json=[1,null,3]"}), "[1,null,3]\n");
  EXPECT_EQ(call({"add", "2", "3", ":json=null"}).out, "5\n");
}

TEST_F(ToolCall, IntegersHave64Bits) {
  EXPECT_EQ(echoed({"9223372036854775807", "-9223372036854775808", "18446744073709551615"}),
            "[9223372036854775807,-9223372036854775808,18446744073709551615]\n");
  EXPECT_EQ(echoed({"n:int=5000000000"}), "{\"n\":5000000000}\n");
}

// A call of that name would be taken for a reply, and wait until its limit: that has another code.
TEST_F(ToolCall, RetvalIsRefusedAtOnce) {
  for (const char* const command : {"call", "post", "send", "fetch"}) {
    const Ended ended = tolk_command({command, at, "retval", "-"});
    EXPECT_EQ(ended.code, 2) << command;
    EXPECT_THAT(ended.err, HasSubstr("no method has the name retval"));
  }
}

TEST_F(ToolCall, AMistypedMethodIsGuessed) {
  const Ended ended = call({"ehco", "1"});
  EXPECT_EQ(ended.code, 5);
  EXPECT_THAT(ended.err, HasSubstr("\ntry: did you mean echo? tolk describe " + at));
  EXPECT_THAT(call({"quite_different"}).err, Not(HasSubstr("did you mean")));
}

TEST_F(ToolCall, PrintsJsonAsAsked) {
  EXPECT_EQ(call({"echo", "1", "x", "--pretty"}).out, "[\n  1,\n  \"x\"\n]\n");
  EXPECT_EQ(call({"echo", "a \"b\"", "--json"}).out, "\"a \\\"b\\\"\"\n");
  EXPECT_EQ(call({"echo", "a \"b\""}).out, "a \"b\"\n");
}

TEST_F(ToolCall, TakesABareNumberForAPipe) {
  EXPECT_EQ(tolk_command({"call", at.substr(at.find(':') + 1), "add", "2", "-3"}).out, "-1\n");
}

TEST(ToolCallOverTcp, ReachesBothFamilies) {
  for (const auto transport : {test::Transport::tcp4, test::Transport::tcp6}) {
    Server server;
    add_methods(server);
    server.listen(layered(fresh_address(transport)));
    EXPECT_EQ(tolk_command({"call", server.address(), "add", "2", "3"}).out, "5\n");
  }
}

TEST_F(ToolCall, CallsHostsWithoutTheLayer) {
  struct Plain : IServerMethod {
    void callback(int, TolkParams* in, TolkParams* out) override {
      out->AddInt(in->GetValue(0)->GetInt() + 1);
      out->AddKeyValueString("note", "plain");
    }
  };
  Plain next;  // a server on a pipe deletes no handlers
  const auto where = fresh_address(test::Transport::pipe);
  const ServerPtr plain = make_server();
  plain->method("next", &next);
  ASSERT_TRUE(start_server(plain.get(), where));
  EXPECT_EQ(tolk_command({"call", where.port, "next", "4"}).out, "[5,{\"note\":\"plain\"}]\n");
  const Ended unknown = tolk_command({"call", where.port, "nope"});
  EXPECT_EQ(unknown.code, 5);
}

TEST_F(ToolCall, PostReturnsWhenTheServerHasTheCall) {
  Counter came;
  server.on("note", [came](const std::string& text) mutable {
    EXPECT_EQ(text, "hello");
    came.add();
  });
  const Ended ended = tolk_command({"post", at, "note", "hello"});
  EXPECT_EQ(ended.code, 0) << ended.err;
  EXPECT_EQ(ended.out, "");
  EXPECT_TRUE(came.wait_for(1));
  // The method is not waited for, so a missing one is not told.
  EXPECT_EQ(tolk_command({"post", at, "nope"}).code, 0);
}

}  // namespace
}  // namespace tolk::test
