// tolk monitor: what it prints, and that what it passes on is what came.
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "tests/e2e/support/raw_channel.h"
#include "tests/tool/served.h"

namespace tolk::test {
namespace {

using Json = nlohmann::json;

std::vector<Json> lines_of(const std::string& text) {
  std::vector<Json> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(Json::parse(line));
  return lines;
}

// The first line with these values.
Json line_with(const std::vector<Json>& lines, const Json& values) {
  for (const Json& line : lines) {
    const bool fits = std::all_of(values.items().begin(), values.items().end(), [&](auto entry) {
      return line.contains(entry.key()) && line[entry.key()] == entry.value();
    });
    if (fits) return line;
  }
  ADD_FAILURE() << "no line with " << values;
  return Json::object();
}

// A monitor between two addresses.
class Monitored {
 public:
  explicit Monitored(Transport from = Transport::pipe, Transport to = Transport::pipe,
                     const std::vector<std::string>& more = {}, const Given& given = {})
      : from_(fresh_address(from)), to_(fresh_address(to)), process_(words(more), given) {
    process_.await("passing on to");
  }

  const Address& from() const { return from_; }
  const Address& to() const { return to_; }
  Process& process() { return process_; }

  // Interrupts it.
  Ended end() {
    process_.signal(SIGINT);
    Ended ended = process_.end();
    EXPECT_EQ(ended.code, 130) << ended.err;
    return ended;
  }

 private:
  std::vector<std::string> words(const std::vector<std::string>& more) const {
    std::vector<std::string> all = {"monitor", "--from", layered(from_).text(), "--to",
                                    layered(to_).text()};
    all.insert(all.end(), more.begin(), more.end());
    return tolk_words(std::move(all));
  }

  const Address from_;
  const Address to_;
  Process process_;
};

struct Mix {
  Transport from;
  Transport to;
};

class ToolMonitorOver : public testing::TestWithParam<Mix> {};
INSTANTIATE_TEST_SUITE_P(
    , ToolMonitorOver,
    testing::Values(Mix{Transport::pipe, Transport::pipe}, Mix{Transport::tcp4, Transport::pipe},
                    Mix{Transport::pipe, Transport::tcp6}, Mix{Transport::tcp6, Transport::tcp4}),
    [](const auto& mix) {
      return transport_name({mix.param.from, 0}) + "To" + transport_name({mix.param.to, 0});
    });

TEST_P(ToolMonitorOver, PrintsTheFramesOfBothDirections) {
  Monitored monitored(GetParam().from, GetParam().to);
  Server server;
  add_methods(server);
  server.on("back", [](const Caller& caller) { return caller.call<int>("count").value(); });
  server.listen(layered(monitored.to()));
  Client client;
  client.on("count", [] { return 12; });
  client.connect(layered(monitored.from()));
  EXPECT_EQ(client.call<int>("add", 19, 23).value(), 42);
  EXPECT_EQ(client.call<int>("back").value(), 12);
  client.post("log", arg("level", 3), arg("text", "hello"));
  EXPECT_FALSE(client.call<int>("nope").has_value());
  client.close();
  server.close();

  const std::vector<Json> lines = lines_of(monitored.end().out);
  const Json call = line_with(lines, {{"kind", "call"}, {"method", "add"}});
  EXPECT_EQ(call["direction"], "to server");
  EXPECT_EQ(call["connection"], 1);
  EXPECT_EQ(call["arguments"], Json({19, 23}));
  EXPECT_GT(call["bytes"], 100);
  EXPECT_THAT(call["time"].get<std::string>(), MatchesRegex("20..-..-..T..:..:..\\.[0-9]{6}Z"));
  const Json reply = line_with(lines, {{"kind", "reply"}, {"method", "add"}});
  EXPECT_EQ(reply["direction"], "to client");
  EXPECT_EQ(reply["result"], Json::array({42}));
  EXPECT_EQ(reply["id"], call["id"]);
  EXPECT_GE(reply["ms"], 0);
  EXPECT_EQ(line_with(lines, {{"kind", "call"}, {"method", "count"}})["direction"], "to client");
  EXPECT_EQ(line_with(lines, {{"kind", "reply"}, {"method", "count"}})["direction"], "to server");
  EXPECT_EQ(line_with(lines, {{"kind", "post"}, {"method", "log"}})["arguments"],
            Json::array({{{"level", 3}, {"text", "hello"}}}));
  EXPECT_EQ(line_with(lines, {{"kind", "reply"}, {"method", "nope"}})["error"],
            "there is no method nope");
}

// Calls some methods through the monitor.
Ended lines_about(Monitored& monitored) {
  Server server;
  add_methods(server);
  server.listen(layered(monitored.to()));
  Client client = connect(layered(monitored.from()));
  EXPECT_EQ(client.call<int>("add", 19, 23).value(), 42);
  EXPECT_FALSE(client.call<int>("fail").has_value());
  EXPECT_FALSE(client.call<int>("add", 1).has_value());
  client.close();
  monitored.process().await("connection 1: closed");
  return monitored.end();
}

std::vector<std::string> methods_in(const std::vector<Json>& lines) {
  std::vector<std::string> all;
  for (const Json& line : lines) {
    all.push_back(line["method"].get<std::string>() + " " + line["direction"].get<std::string>());
  }
  return all;
}

TEST(ToolMonitor, TheVersionCheckIsShownWhenItIsAsked) {
  Monitored usual;
  EXPECT_THAT(lines_about(usual).out, Not(HasSubstr("s_c_version")));
  Monitored all(Transport::pipe, Transport::pipe, {"--all"});
  EXPECT_THAT(lines_about(all).out, HasSubstr("s_c_version"));
}

TEST(ToolMonitor, ShowsAMethodADirectionOrErrorsAlone) {
  using testing::ElementsAre;
  const auto shown = [](const std::vector<std::string>& words) {
    Monitored monitored(Transport::pipe, Transport::pipe, words);
    return methods_in(lines_of(lines_about(monitored).out));
  };
  EXPECT_THAT(shown({"--method", "fail"}), ElementsAre("fail to server", "fail to client"));
  EXPECT_THAT(shown({"--method", "fail", "--method=add", "--direction", "to-server"}),
              ElementsAre("add to server", "fail to server", "add to server"));
  EXPECT_THAT(shown({"--errors"}), ElementsAre("fail to client", "add to client"));
  EXPECT_THAT(shown({"--errors", "--method", "add"}), ElementsAre("add to client"));
  EXPECT_EQ(tolk_command({"monitor", "--from", "1", "--to", "2", "--direction", "up"}).code, 2);
}

TEST(ToolMonitor, LinesOnATerminalAreForPeople) {
  const Given given{.out_is_terminal = true};
  Monitored monitored(Transport::pipe, Transport::pipe, {}, given);
  const std::string out = lines_about(monitored).out;
  const std::string time = "\033\\[2m[0-9][0-9]:[0-9][0-9]:[0-9][0-9]\\.[0-9][0-9][0-9]  1 ";
  EXPECT_THAT(out, testing::ContainsRegex(time + "-> .*add.* \\[19,23\\]"));
  EXPECT_THAT(out, testing::ContainsRegex(time + "<- .*add.* \\[42\\].*  [0-9.]+ ms"));
  EXPECT_THAT(out, HasSubstr("fail\033[0m\033[1;31m: the disk is full\033[0m"));
  EXPECT_THAT(out, Not(HasSubstr("\"method\"")));
  Monitored json(Transport::pipe, Transport::pipe, {"--json", "--color=never"}, given);
  EXPECT_EQ(lines_of(lines_about(json).out).at(0)["method"], "add");
}

TEST(ToolMonitor, EachConnectionHasANumberOfItsOwn) {
  Monitored monitored;
  Server server;
  add_methods(server);
  server.listen(layered(monitored.to()));
  Client first;
  Client second;
  first.connect(layered(monitored.from()));
  second.connect(layered(monitored.from()));
  EXPECT_EQ(first.call<int>("add", 1, 1).value(), 2);
  EXPECT_EQ(second.call<int>("add", 2, 2).value(), 4);
  const std::vector<Json> lines = lines_of(monitored.end().out);
  EXPECT_EQ(line_with(lines, {{"arguments", {1, 1}}})["connection"], 1);
  EXPECT_EQ(line_with(lines, {{"arguments", {2, 2}}})["connection"], 2);
}

TEST(ToolMonitor, PiecesAreShownByTheirSize) {
  Monitored monitored;
  Server server;
  server.on("upload", [](const tolk::bytes& data) { return static_cast<int>(data.size()); });
  server.listen(layered(monitored.to()));
  Client client = connect(layered(monitored.from()));
  EXPECT_EQ(client.send<int>("upload", std::string(600'000, 'x')).value(), 600'000);
  const std::vector<Json> lines = lines_of(monitored.end().out);
  std::vector<Json> pieces;
  for (const Json& line : lines) {
    if (line["kind"] == "piece") pieces.push_back(line);
  }
  ASSERT_EQ(pieces.size(), 4U);  // the first one asks, and has no bytes
  EXPECT_EQ(pieces[1]["method"], "upload");
  EXPECT_EQ(pieces[1]["arguments"][0]["$bytes"], 262144);
  EXPECT_LT(pieces[1].dump().size(), 1000U);
}

TEST(ToolMonitor, BytesThatAreNoFramesPassUnchangedAndAreTold) {
  Monitored monitored;
  RawListener listener(monitored.to());
  RawSocket client = RawSocket::connect_to(monitored.from());
  RawSocket server = listener.accept();
  const std::string request = "GET / HTTP/1.1\r\n\r\n";
  ASSERT_TRUE(client.send(request));
  EXPECT_EQ(server.read(request.size()), request);
  ASSERT_TRUE(client.send("more"));
  EXPECT_EQ(server.read(4), "more");
  ASSERT_TRUE(server.send(frame("") + prefix(-7)));
  EXPECT_TRUE(client.read(8).has_value());
  const std::vector<Json> lines = lines_of(monitored.end().out);
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(lines[0]["kind"], "no frame");
  EXPECT_EQ(lines[0]["offset"], 0);
  EXPECT_THAT(lines[0]["reason"].get<std::string>(), HasSubstr("does not begin with a record"));
  EXPECT_EQ(lines[1]["kind"], "nameless");
  EXPECT_EQ(lines[2]["offset"], 4);
  EXPECT_THAT(lines[2]["reason"].get<std::string>(), HasSubstr("-7"));
}

TEST(ToolMonitor, AMalformedBlockIsNamedAndTheNextFrameIsRead) {
  Monitored monitored;
  RawListener listener(monitored.to());
  RawSocket client = RawSocket::connect_to(monitored.from());
  RawSocket server = listener.accept();
  const std::string good = call_payload("add", 1, BlockWriter().add(1).bytes(), "0x1");
  const std::string bytes = frame(good + "?") + frame(good);
  ASSERT_TRUE(client.send(bytes + frame(good).substr(0, 20)));
  EXPECT_EQ(server.read(bytes.size()), bytes);
  client.close();
  EXPECT_TRUE(server.ended());
  server.close();
  monitored.process().await("closed");
  const std::vector<Json> lines = lines_of(monitored.end().out);
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(lines[0]["malformed"],
            "at byte " + std::to_string(good.size()) + ": 0x3f does not begin a record");
  EXPECT_FALSE(lines[1].contains("malformed"));
  EXPECT_EQ(lines[2]["kind"], "no frame");
  EXPECT_THAT(lines[2]["reason"].get<std::string>(), HasSubstr("are missing"));
}

class ToolMonitorEnds : public OverTransports {};
TOLK_OVER_TRANSPORTS(ToolMonitorEnds);

TEST_P(ToolMonitorEnds, TheEndOfSendingIsPassedOnAloneAndBehindTheBytes) {
  Monitored monitored(GetParam(), GetParam());
  RawListener listener(monitored.to());
  RawSocket client = RawSocket::connect_to(monitored.from());
  RawSocket server = listener.accept();
  const std::string much(1'000'000, 'x');
  std::thread sender([&] {
    EXPECT_TRUE(client.send(much));
    client.end_sending();
  });
  EXPECT_EQ(server.read_until_end(), much);
  sender.join();
  ASSERT_TRUE(server.send("still here"));
  EXPECT_EQ(client.read(10), "still here");
  server.close();
  EXPECT_TRUE(client.ended());
  monitored.process().await("connection 1: closed");
  monitored.end();
}

TEST_P(ToolMonitorEnds, AResetIsPassedOnWhereThereIsSuchAThing) {
  Monitored monitored(GetParam(), GetParam());
  RawListener listener(monitored.to());
  RawSocket client = RawSocket::connect_to(monitored.from());
  RawSocket server = listener.accept();
  ASSERT_TRUE(server.send("last words"));
  EXPECT_EQ(client.read(10), "last words");
  server.reset();
  pollfd waits{client.descriptor(), POLLIN, 0};
  ASSERT_EQ(poll(&waits, 1, static_cast<int>(kLimit.count())), 1);
  char byte = 0;
  const ssize_t size = recv(client.descriptor(), &byte, 1, 0);
  const int error = errno;
  EXPECT_EQ(size, is_pipe() ? 0 : -1);
  if (!is_pipe()) {
    EXPECT_EQ(error, ECONNRESET);
    monitored.process().await("the server has disconnected");
  }
  monitored.end();
}

TEST_P(ToolMonitorEnds, AServerThatIsNotThereIsTold) {
  Monitored monitored(GetParam(), GetParam());
  RawSocket client = RawSocket::connect_to(monitored.from());
  monitored.process().await("connection 1: cannot connect to " + layered(monitored.to()).text());
  // Another one may come later, when the server is there.
  Server server;
  add_methods(server);
  server.listen(layered(monitored.to()));
  Client late = connect(layered(monitored.from()));
  EXPECT_EQ(late.call<int>("add", 1, 2).value(), 3);
  monitored.end();
}

// The bytes of memory that are in use by the process and its children.
std::size_t resident_kib(pid_t process) {
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmRSS:")) return std::stoul(line.substr(6));
  }
  return 0;
}

TEST_P(ToolMonitorEnds, WhoDoesNotReadHoldsUpTheSenderAndNoMemoryIsTaken) {
  Monitored monitored(GetParam(), GetParam());
  RawListener listener(monitored.to());
  RawSocket client = RawSocket::connect_to(monitored.from());
  RawSocket server = listener.accept();
  ASSERT_TRUE(client.send("x"));
  ASSERT_EQ(server.read(1), "x");
  const std::size_t before_kib = resident_kib(monitored.process().id());
  std::string much;
  much.assign(100'000'000, 'x');
  EXPECT_FALSE(client.send(much, kQuiet));  // it is not taken as long as nobody reads
  const std::size_t after_kib = resident_kib(monitored.process().id());
  EXPECT_LT(after_kib, before_kib + 8192);
  // What was taken arrives once it is read.
  client.end_sending();
  const auto come = server.read_until_end();
  ASSERT_TRUE(come.has_value());
  EXPECT_EQ(come->find_first_not_of('x'), std::string::npos);
  EXPECT_GT(come->size(), std::size_t{100'000});
  monitored.end();
}

std::string folder_of_test() {
  char name[] = "/tmp/tolk-test-XXXXXX";
  return mkdtemp(name);
}

TEST(ToolMonitor, RefusesWhatCanNotBe) {
  const std::string at = fresh().text();
  const Ended same = tolk_command({"monitor", "--from", at, "--to", at});
  EXPECT_EQ(same.code, 2);
  EXPECT_THAT(same.err, StartsWith("tolk: monitor at " + at +
                                   ": --from and --to name the same address\ntry: "));
  const Ended nowhere = tolk_command({"monitor", "--from", at, "--to", "nowhere"});
  EXPECT_EQ(nowhere.code, 2);
  EXPECT_THAT(nowhere.err, StartsWith("tolk: monitor at nowhere: an address is pipe:NAME"));
  EXPECT_EQ(tolk_command({"monitor", "--to", at}).code, 2);

  Server server;
  server.listen(fresh());
  const Ended taken = tolk_command({"monitor", "--from", server.address(), "--to", at});
  EXPECT_EQ(taken.code, 1);
  EXPECT_THAT(taken.err, MatchesRegex("tolk: monitor at " + server.address() +
                                      ": cannot listen: .*\ntry: .*\n"));
  const Ended no_file =
      tolk_command({"monitor", "--from", at, "--to", "1", "--pcapng", "/nowhere/x.pcapng"});
  EXPECT_EQ(no_file.code, 1);
  EXPECT_THAT(no_file.err,
              StartsWith("tolk: monitor at " + at + ": /nowhere/x.pcapng: No such file"));
}

TEST(ToolMonitor, LeavesItsPipeFree) {
  Monitored monitored;
  const std::string path = pipe_path(monitored.from().port);
  EXPECT_TRUE(std::filesystem::is_socket(path));
  EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms(0600));
  monitored.end();
  EXPECT_FALSE(std::filesystem::exists(path));
  EXPECT_FALSE(std::filesystem::exists(path + ".lock"));
  Server server;
  EXPECT_NO_THROW(server.listen(layered(monitored.from())));
}

// What a dead server left is removed; anything else of that name stays.
TEST(ToolMonitor, ClaimsAPipeNameAsAServerDoes) {
  const auto from = fresh_address(Transport::pipe);
  const std::string path = pipe_path(from.port);
  std::filesystem::create_directory(path);
  const std::vector<std::string> words = {"monitor", "--from", layered(from).text(), "--to", "1"};
  const Ended refused = tolk_command(words);
  EXPECT_EQ(refused.code, 1);
  EXPECT_THAT(refused.err, HasSubstr(": cannot listen: illegal operation on a directory\ntry: "));
  EXPECT_FALSE(std::filesystem::exists(path + ".lock"));
  EXPECT_TRUE(std::filesystem::remove(path));
  for (int round = 0; round < 2; ++round) {
    Process killed(tolk_words(words));
    killed.await("passing on to");
    killed.signal(SIGKILL);
    EXPECT_EQ(killed.end().code, 128 + SIGKILL);
    EXPECT_TRUE(std::filesystem::is_socket(path));
  }
  std::filesystem::remove(path);
  std::filesystem::remove(path + ".lock");
}

TEST(ToolMonitor, EndsWhenNobodyReadsItsLines) {
  const std::string from = fresh().text();
  Server server;
  add_methods(server);
  server.listen(fresh());
  Process process({"/bin/sh", "-c",
                   "{ " TOLK_COMMAND " monitor --from " + from + " --to " + server.address() +
                       "; echo its code is $? >&2; } | head -n 1"});
  process.await("passing on to");
  EXPECT_ANY_THROW({
    Client client = connect(from);
    while (client.call<int>("add", 1, 2).value() == 3) {
    }
  });
  const Ended ended = process.end();
  EXPECT_THAT(ended.err, AllOf(HasSubstr("standard output"), HasSubstr("its code is 1")));
}

TEST(ToolMonitor, ItsCaptureIsWholeWheneverItEnds) {
  const std::string folder = folder_of_test();
  const std::string file = folder + "/calls.pcapng";
  Monitored monitored(Transport::pipe, Transport::pipe, {"--pcapng", file});
  Server server;
  add_methods(server);
  server.listen(layered(monitored.to()));
  Client client = connect(layered(monitored.from()));
  EXPECT_EQ(client.call<int>("add", 1, 2).value(), 3);
  monitored.process().signal(SIGKILL);
  EXPECT_EQ(monitored.process().end().code, 128 + SIGKILL);
  std::ifstream in(file, std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(in)), {});
  std::size_t at = 0;
  int packets = 0;
  while (at + 12 <= bytes.size()) {
    std::uint32_t type = 0;
    std::uint32_t size = 0;
    std::memcpy(&type, bytes.data() + at, 4);
    std::memcpy(&size, bytes.data() + at + 4, 4);
    ASSERT_GE(size, 12U);
    packets += type == 6 ? 1 : 0;
    at += size;
  }
  EXPECT_EQ(at, bytes.size());
  EXPECT_EQ(packets, 4);  // the version check and the call, with their replies
  std::filesystem::remove_all(folder);
}

}  // namespace
}  // namespace tolk::test
