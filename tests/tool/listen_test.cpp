// tolk listen: every call that arrives, and what is answered.
#include <signal.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "tests/tool/served.h"

namespace tolk::test {
namespace {

using Json = nlohmann::json;

class ToolListen : public testing::Test {
 protected:
  void listen(std::vector<std::string> words) {
    words.insert(words.begin(), {"listen", at});
    process = std::make_unique<Process>(tolk_words(words));
    process->await("listening at " + at);
  }

  const std::string at = fresh().text();
  std::unique_ptr<Process> process;
};

TEST_F(ToolListen, PrintsEachCallAsALineOfJson) {
  listen({"--json", "--count", "2"});
  Client client = connect(at);
  (void)client.call("first", 1, "x", arg("k", true));
  (void)client.call("second");
  const Ended ended = process->end();
  EXPECT_EQ(ended.code, 0) << ended.err;
  const std::size_t cut = ended.out.find('\n');
  const Json first = Json::parse(ended.out.substr(0, cut));
  EXPECT_EQ(first["method"], "first");
  EXPECT_EQ(first["arguments"], Json::parse(R"([1, "x", {"k": true}])"));
  EXPECT_TRUE(first["client"].is_number());
  EXPECT_EQ(Json::parse(ended.out.substr(cut + 1))["method"], "second");
}

TEST_F(ToolListen, ShowsAListInAStructAsItIs) {
  listen({"--json", "--count", "1"});
  (void)tolk_command({"call", at, "m", R"(--json={"a":[1,{"b":2}]})"});
  EXPECT_EQ(Json::parse(process->end().out)["arguments"], Json::parse(R"([{"a":[1,{"b":2}]}])"));
}

TEST_F(ToolListen, PrintsLinesForPeople) {
  listen({"-c", "1"});
  (void)connect(at).call("first", 1);
  EXPECT_THAT(process->end().out,
              MatchesRegex("[0-9][0-9]:[0-9][0-9]:[0-9][0-9] client -?[0-9]+: first \\[1\\]\n"));
}

TEST_F(ToolListen, AnswersTheLastCallToo) {
  listen({"--answer", "\"thank you\"", "--count", "1"});
  EXPECT_EQ(connect(at).call<std::string>("anything").value(), "thank you");
  EXPECT_EQ(process->end().code, 0);
}

TEST_F(ToolListen, AnswersWithAList) {
  listen({"--answer", "[1, 2]", "--count", "1"});
  EXPECT_EQ(connect(at).call<std::vector<int>>("anything").value(), (std::vector<int>{1, 2}));
}

TEST_F(ToolListen, ShowsCallsThatAreOnlyPosted) {
  listen({"--json"});
  EXPECT_EQ(tolk_command({"post", at, "note", "hello"}).code, 0);
  process->await("\"hello\"");
  process->signal(SIGINT);
  EXPECT_EQ(process->end().code, 130);
}

TEST_F(ToolListen, ShowsWhatIsSentInPiecesToOthers) {
  listen({"--json", "--count", "1"});
  EXPECT_EQ(tolk_command({"send", at, "upload", "-", "--name", "x"}, {.input = "hello"}).code, 0);
  const Json line = Json::parse(process->end().out);
  EXPECT_EQ(line["method"], "upload");
  EXPECT_EQ(line["arguments"], Json::parse(R"([{"$base64": "aGVsbG8="}, {"name": "x"}])"));
}

TEST_F(ToolListen, LongValuesAreShownByTheirSizeAndBegin) {
  listen({"--json", "--count", "2"});
  Client client = connect(at);
  std::string text(70'000, 'x');
  text.replace(47, 2, "\xc3\xa4");  // where it is cut
  (void)client.call("store", bytes(1'000'000), text, std::vector<int>(1000, 7), arg("k", text));
  (void)client.call("store", std::string(256, 'x'));
  const Ended ended = process->end();
  const Json arguments = Json::parse(ended.out.substr(0, ended.out.find('\n')))["arguments"];
  const std::string zeros(64, 'A');
  const Json shown = {{"$bytes", 70'000}, {"$text", std::string(47, 'x')}};
  EXPECT_EQ(arguments[0], Json({{"$bytes", 1'000'000}, {"$first", zeros}}));
  EXPECT_EQ(arguments[1], shown);
  EXPECT_EQ(arguments[2].size(), 33U);
  EXPECT_EQ(arguments[2].back(), Json({{"$more", 968}}));
  EXPECT_EQ(arguments[3]["k"], shown);
  EXPECT_THAT(ended.out, HasSubstr(std::string(256, 'x')));
  EXPECT_LT(ended.out.size(), 2000U);
}

TEST_F(ToolListen, FullShowsAllOfThem) {
  listen({"--full", "--count", "1"});
  (void)connect(at).call("store", std::string(70'000, 'x'));
  EXPECT_GT(process->end().out.size(), 70'000U);
}

// A name of a pipe is a file; the port of a TCP address is none.
TEST(ToolListenOverTcp, DeletesNoFileThatIsNamedLikeThePort) {
  char name[] = "/tmp/tolk-test-XXXXXX";
  const std::string folder = mkdtemp(name);
  const auto where = fresh_address(test::Transport::tcp4);
  std::ofstream(folder + "/" + where.port) << "kept";
  {
    Process listens(tolk_words({"listen", layered(where).text()}), {.folder = folder});
    listens.await("listening at ");
    listens.signal(SIGINT);
    EXPECT_EQ(listens.end().code, 130);
  }
  EXPECT_TRUE(std::filesystem::exists(folder + "/" + where.port));
  std::filesystem::remove_all(folder);
}

TEST_F(ToolListen, EndsWhenNobodyReadsAnyMore) {
  Process listens({"/bin/sh", "-c", "tolk listen " + at + " | head -n 1; echo the end"});
  listens.await("listening at");
  for (Client client = connect(at); client.call("again");) {
  }
  const Ended ended = listens.end();
  EXPECT_THAT(ended.out, testing::EndsWith("the end\n"));
  EXPECT_THAT(ended.err,
              HasSubstr("tolk: listen at " + at + ": cannot write to standard output: "));
}

TEST_F(ToolListen, ABadAnswerIsSaidBeforeItListens) {
  const Ended ended = tolk_command({"listen", at, "--answer", "{no"});
  EXPECT_EQ(ended.code, 2);
  EXPECT_THAT(ended.err,
              AllOf(StartsWith("tolk: listen at " + at + ": --answer {no: not valid JSON"),
                    HasSubstr("\ntry: ")));
  const Ended large = tolk_command({"listen", at, "--answer", "1e999"});
  EXPECT_EQ(large.code, 2);
  EXPECT_THAT(large.err, HasSubstr("--answer 1e999: number overflow parsing '1e999'\ntry: "));
}

}  // namespace
}  // namespace tolk::test
