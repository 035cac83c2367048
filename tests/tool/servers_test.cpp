// tolk list, describe and ping: what there is, what it offers, how fast it answers.
#include <signal.h>
#include <tolk/c.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "tests/tool/served.h"

namespace tolk::test {
namespace {

using Json = nlohmann::json;

struct Spot {
  int x = 0;
  int y = 0;
};
TOLK_FIELDS(Spot, x, y)

struct Path {
  std::string name;
  std::vector<Spot> spots;
};
TOLK_FIELDS(Path, name, spots)

class ToolServers : public ServedTest {};

class ToolList : public ServedTest {
 protected:
  // The command asks all servers of the user, so those of tests that run at the same time too. The
  // answer of one may take long then.
  static Ended list(const std::string& option, const std::string& timeout = "20s") {
    return tolk_command({"list", option, "--timeout", timeout});
  }

  // The entry of the address; null when it is not listed.
  static Json listed(const std::string& address, const std::string& timeout = "20s") {
    const Ended ended = list("--json", timeout);
    EXPECT_EQ(ended.code, 0) << ended.err;
    for (const Json& each : Json::parse(ended.out)) {
      if (each["address"] == address) return each;
    }
    return nullptr;
  }
};

TEST_F(ToolList, ShowsALiveServerWithItsMethods) {
  const auto where = fresh();
  Server two;
  two.on("first", [] {});
  two.on("second", [] {});
  two.listen(where);
  const Json found = listed(where.text());
  EXPECT_EQ(found["methods"], 2);
  EXPECT_EQ(found["state"], "2 methods");
  EXPECT_GT(found["ms"].get<double>(), 0);
  EXPECT_THAT(list("--color=never").out, HasSubstr(where.text() + " "));
}

TEST_F(ToolList, LeavesOutWhatADeadServerHasLeft) {
  const std::string where = fresh().text();
  {
    Process dead(tolk_words({"listen", where}));
    dead.await("listening at");
    dead.signal(SIGKILL);
    EXPECT_EQ(dead.end().code, 128 + SIGKILL);
  }
  EXPECT_EQ(listed(where), nullptr);
  EXPECT_THAT(list("-v").err, HasSubstr(where + ": not connected"));
}

TEST_F(ToolList, ShowsOneThatDoesNotAnswer) {
  const auto where = fresh_address(test::Transport::pipe);
  RawListener silent(where);
  EXPECT_EQ(listed("pipe:" + where.port, "100ms")["state"],
            "the server did not answer within 100 ms");
}

TEST_F(ToolList, ShowsNoTimeOfOneThatRefuses) {
  const auto where = fresh_address(test::Transport::pipe);
  RawServer refuses(where, refusing());
  const Json found = listed("pipe:" + where.port);
  EXPECT_EQ(found["state"], "refused: the server is of another version");
  EXPECT_EQ(found["ms"], nullptr);
  EXPECT_THAT(list("--color=never").out,
              HasSubstr("pipe:" + where.port + "            -  refused: "));
}

TEST_F(ToolList, LeavesOutOneThatGoesAway) {
  const auto where = fresh_address(test::Transport::pipe);
  RawServer leaves(where, [](RawSocket& client) {
    accepting()(client);
    client.close();
  });
  EXPECT_EQ(listed("pipe:" + where.port), nullptr);
}

TEST_F(ToolList, ShowsOneThatDoesNotTell) {
  const auto where = fresh_address(test::Transport::pipe);
  const ServerPtr plain = make_server();
  ASSERT_TRUE(start_server(plain.get(), where));
  const Json found = listed("pipe:" + where.port);
  EXPECT_EQ(found["methods"], nullptr);
  EXPECT_EQ(found["state"], "does not list its methods");
}

TEST_F(ToolServers, DescribePrintsNamesSignaturesAndTexts) {
  const Ended ended = tolk_command({"describe", at});
  EXPECT_EQ(ended.code, 0) << ended.err;
  EXPECT_THAT(ended.out, HasSubstr("add(int, int) -> int  "));
  EXPECT_THAT(ended.out, HasSubstr("  the sum of two numbers\n"));
  const Json all = Json::parse(tolk_command({"describe", at, "--pretty"}).out);
  EXPECT_EQ(all[0], Json({{"name", "add"},
                          {"signature", "(int, int) -> int"},
                          {"about", "the sum of two numbers"}}));
}

TEST_F(ToolServers, DescribeFitsTheTerminal) {
  server.on(
      "place",
      [](named<"left", int>, named<"top", int>, named<"width", int>, named<"height", int>,
         named<"opacity", std::optional<double>>) { return std::string(); },
      "puts a window where it shall be, and tells the name of the place that it had before");
  const Ended ended = tolk_command({"describe", at}, {.environment = {"COLUMNS=60"}});
  std::istringstream lines(ended.out);
  for (std::string line; std::getline(lines, line);) EXPECT_LE(line.size(), 60U) << line;
  EXPECT_THAT(ended.out, HasSubstr("place(left: int, top: int, width: int, height: int,\n"
                                   "    opacity: double?) -> string\n"
                                   "    puts a window where it shall be, and tells the name of\n"
                                   "    the place that it had before\n"));
  // Scripts get a method a line.
  EXPECT_THAT(tolk_command({"describe", at}).out, HasSubstr("opacity: double?) -> string  puts a"));
}

TEST_F(ToolServers, DescribeWritesAStructOnce) {
  server.on("move", [](const Spot& from, const std::vector<Spot>&) { return from; });
  server.on("only", [](const Path& path) { return path.name; });
  const Ended ended = tolk_command({"describe", at, "--color=never"});
  EXPECT_THAT(ended.out, HasSubstr("move(T1, [T1]) -> T1\n"));
  EXPECT_THAT(ended.out, HasSubstr("only({name: string, spots: [T1]}) -> string\n"));
  EXPECT_THAT(ended.out, testing::EndsWith("\nT1 = {x: int, y: int}\n"));
  const Json all = Json::parse(tolk_command({"describe", at, "--json"}).out);
  EXPECT_THAT(all.dump(), HasSubstr("({x: int, y: int}, [{x: int, y: int}]) -> {x: int, y: int}"));
}

TEST_F(ToolServers, DescribeLeavesASignatureOfAnotherFormAsItIs) {
  struct Odd {
    static void answer(void*, tolk_request* request) { tolk_request_answer(request, nullptr); }
  };
  const std::string where = fresh().text();
  tolk_methods* const methods = tolk_methods_new();
  tolk_method_options options{};
  options.size = sizeof options;
  options.signature = "takes <whatever> {comes";
  tolk_methods_add(methods, "odd ", Odd::answer, nullptr, &options, nullptr);
  tolk_server_options wanted{};
  wanted.size = sizeof wanted;
  wanted.methods = methods;
  tolk_server* own = nullptr;
  ASSERT_EQ(tolk_server_listen(where.c_str(), &wanted, &own, nullptr), TOLK_OK);
  EXPECT_EQ(tolk_command({"describe", where}).out, "odd takes <whatever> {comes\n");
  tolk_server_free(own);
  tolk_methods_free(methods);
}

TEST_F(ToolServers, DescribeSaysThatAPlainServerDoesNotOfferIt) {
  const auto where = fresh_address(test::Transport::pipe);
  const ServerPtr plain = make_server();
  ASSERT_TRUE(start_server(plain.get(), where));
  const Ended ended = tolk_command({"describe", where.port});
  EXPECT_EQ(ended.code, 5);
  EXPECT_EQ(ended.out, "");
  EXPECT_THAT(ended.err, StartsWith("tolk: describe at pipe:" + where.port +
                                    ": the server does not list its methods\ntry: "));
}

TEST_F(ToolServers, PingPrintsEachAnswerAndASummary) {
  const Ended ended = tolk_command({"ping", at, "--count", "2", "--interval", "1ms"});
  EXPECT_EQ(ended.code, 0) << ended.err;
  const std::string answer = at + " answered in [0-9.]+ ms\n";
  EXPECT_THAT(ended.out, MatchesRegex(answer + answer + at +
                                      ": 2 sent, 2 answered; min/avg/max "
                                      "[0-9.]+/[0-9.]+/[0-9.]+ ms\n"));
  EXPECT_THAT(tolk_command({"ping", at, "-c", "1", "-q"}).out, StartsWith(at + ": 1 sent"));
  const Json json = Json::parse(tolk_command({"ping", at, "-c", "1", "--json"}).out);
  EXPECT_EQ(json["answered"], 1);
  EXPECT_EQ(json["min_ms"], json["max_ms"]);
}

TEST_F(ToolServers, PingThatIsInterruptedPrintsItsSummary) {
  Process process(tolk_words({"ping", at, "--count", "0"}));
  process.await("answered in");
  process.signal(SIGINT);
  const Ended ended = process.end();
  EXPECT_EQ(ended.code, 130);
  EXPECT_THAT(ended.out, HasSubstr(" answered; min/avg/max "));
}

TEST_F(ToolServers, PingOfAServerThatGoesNamesItself) {
  const auto where = fresh_address(test::Transport::pipe);
  RawServer leaves(where);
  std::thread leaving([&] { leaves.take(); });
  const Ended ended = tolk_command({"ping", where.port});
  leaving.join();
  EXPECT_EQ(ended.code, 3);
  EXPECT_THAT(ended.err, StartsWith("tolk: ping at pipe:" + where.port + ": "));
}

TEST_F(ToolServers, PingReachesHostsWithoutTheLayer) {
  const auto where = fresh_address(test::Transport::pipe);
  const ServerPtr plain = make_server();
  ASSERT_TRUE(start_server(plain.get(), where));
  EXPECT_EQ(tolk_command({"ping", where.port, "-c", "1"}).code, 0);
}

}  // namespace
}  // namespace tolk::test
