// The lines of a server: log levels and the sink.
#include <gtest/gtest.h>

#include <thread>

#include "tests/e2e/support/process_state.h"
#include "tests/e2e/support/server_test.h"

namespace tolk::test {
namespace {

const std::string kClosing = "Server Closing!\n";
const std::string kClosed = "Server Closed!\n";
const std::string kRefused = "send msg: disconnect... .. .\n";

class ServerLog : public ServerTest {
 protected:
  ~ServerLog() override { server.reset(); }  // before the sinks that it may call

  // A sink that notes the lines. Its owner is the test: the server never deletes a sink.
  void install_sink() { server->method("s_c_log", &sink); }
  // Causes a line of the log, on any thread.
  void refuse_a_call() { EXPECT_EQ(server->PostMsg(1, "x", nullptr, 1), nullptr); }
  bool log(const char* text, int level) {
    std::string copy(text);
    return server->log(copy.data(), level);
  }

  Journal lines;
  Counter sink_deleted;
  FunctionHandler sink{[this](int id, TolkParams* in, TolkParams* out) {
                         const bool as_told = id == 0 && in->ParamsSize() == 1 &&
                                              in->MapSize() == 0 && out == nullptr;
                         lines.note(as_told ? string_at(in, 0) : "not one string");
                       },
                       sink_deleted};
};
TOLK_OVER_TRANSPORTS(ServerLog);

TEST_P(ServerLog, LogReturnsFalseForAnEmptyText) {
  EXPECT_TRUE(log("any", 1));
  EXPECT_TRUE(log("any", 0));
  EXPECT_FALSE(log("", 1));
  EXPECT_FALSE(server->log(nullptr, 1));
}

TEST_P(ServerLog, LevelZeroSilencesEventsButNotFailedCalls) {
  EXPECT_FALSE(log("", 0)) << "the level counts although the text is refused";
  Capture capture;
  refuse_a_call();
  start();
  {
    RawClient client(address);
    EXPECT_TRUE(client.is_greeted());
    client.socket.send_frame(call_payload("foo", 1, {}, "0x1"));
    ASSERT_FALSE(client.socket.is_quiet(kLimit));
  }
  EXPECT_TRUE(eventually([&] { return server->GetClientCount() == 0; }));
  server->close();
  EXPECT_EQ(capture.text(), kRefused + reset_line());
}

TEST_P(ServerLog, NegativeLevelIsSilentAndPositiveLevelPrintsAgain) {
  log("x", -1);
  Capture capture;
  start();
  EXPECT_EQ(capture.text(), "");
  log("x", 2);
  server->close();
  EXPECT_EQ(capture.text(), kClosing + kClosed);
}

TEST_P(ServerLog, SinkGetsEveryLineInsteadOfStandardOutput) {
  install_sink();
  Capture capture;
  refuse_a_call();
  start();
  server->close();
  refuse_a_call();
  EXPECT_EQ(lines.notes(),
            (std::vector<std::string>{kRefused, start_line(), kClosing, kClosed, kRefused}));
  EXPECT_EQ(capture.text(), "");
}

TEST_P(ServerLog, LevelAppliesToTheSinkToo) {
  install_sink();
  log("x", 0);
  start();
  server->close();
  refuse_a_call();
  EXPECT_EQ(lines.notes(), std::vector<std::string>{kRefused});
}

// These two kinds of line go to standard output even when there is a sink.
TEST_P(ServerLog, EmptyEventsAndWriteErrorsBypassTheSink) {
  Gate gate;
  const OpenAtEnd open(gate);
  install_sink();
  server->method("wait", blocking(gate));
  start();
  Capture capture;
  RawClient client(address, false);
  client.socket.send(prefix(0));
  EXPECT_TRUE(capture.wait_for_line("event empty!"));
  client.post("wait");
  ASSERT_TRUE(gate.wait_entered());
  client.socket.close();
  ASSERT_TRUE(lines.wait_for(3));  // start, accept, close
  gate.open();
  EXPECT_TRUE(capture.wait_for_text("event empty!\nwrite error\n"));
}

TEST_P(ServerLog, SinkIsNeverDeleted) {
  install_sink();
  start();
  server->close();
  server.reset();
  EXPECT_EQ(sink_deleted.value(), 0);
}

TEST_P(ServerLog, NullSinkRestoresStandardOutput) {
  install_sink();
  server->method("s_c_log", nullptr);
  Capture capture;
  refuse_a_call();
  EXPECT_EQ(capture.text(), kRefused);
  EXPECT_TRUE(lines.notes().empty());
}

TEST_P(ServerLog, SinkCannotBeCalledAsAMethod) {
  install_sink();
  start();
  RawClient client(address);
  const std::size_t before = lines.notes().size();
  EXPECT_EQ(client.call("s_c_log")->string_at(0), "no event: s_c_log");
  EXPECT_EQ(lines.notes().size(), before);
}

// close deletes it as a method; it must not get the line that follows.
TEST_P(ServerLog, SinkThatIsAlsoAMethodGetsNoLineAfterItsDeletion) {
  Counter deleted;
  Journal heard;
  IServerMethod* const both = on_call(
      [heard](int, TolkParams* in, TolkParams*) mutable { heard.note(string_at(in, 0)); }, deleted);
  server->method("a", both);
  server->method("s_c_log", both);
  start();
  Capture capture;
  server->close();
  EXPECT_EQ(deleted.value(), 1);
  EXPECT_EQ(heard.notes(), (std::vector<std::string>{start_line(), kClosing}));
  EXPECT_EQ(capture.text(), kClosed);
}

// Lines that it causes itself reach it up to a limit of nesting; deeper ones are printed.
TEST_P(ServerLog, SinkThatLogsDoesNotRecurseForever) {
  Counter entered;
  IServer* const raw = server.get();
  FunctionHandler recursive([=](int, TolkParams*, TolkParams*) mutable {
    entered.add();
    raw->PostMsg(1, "x", nullptr, 1);
  });
  server->method("s_c_log", &recursive);
  Capture capture;
  refuse_a_call();
  EXPECT_EQ(entered.value(), 8);
  EXPECT_EQ(capture.text(), kRefused);
  server.reset();
}

TEST_P(ServerLog, ThrowingSinkLosesOnlyItsLine) {
  FunctionHandler throwing([](int, TolkParams*, TolkParams*) { throw 1; });
  server->method("s_c_log", &throwing);
  Capture capture;
  refuse_a_call();
  start();
  EXPECT_TRUE(RawClient(address).is_greeted());
  server.reset();
  EXPECT_EQ(capture.text(), "");
}

TEST_P(ServerLog, SinkMayCallTheServer) {
  IServer* const raw = server.get();
  FunctionHandler calling([raw](int, TolkParams*, TolkParams*) {
    raw->GetClientCount();
    raw->method("added by the sink", answering("x"));
    raw->ClearRetvalMem();
  });
  server->method("s_c_log", &calling);
  start();
  RawClient client(address);
  EXPECT_EQ(client.call("added by the sink")->string_at(0), "x");
  client.socket.close();
  server->close();
  server.reset();
}

// The connection of that line ends with the server, without lines for its own end.
TEST_P(ServerLog, SinkMayCloseTheServerWhenAClientIsAccepted) {
  IServer* const raw = server.get();
  FunctionHandler closing([this, raw](int, TolkParams* in, TolkParams*) {
    lines.note(string_at(in, 0));
    if (string_at(in, 0).starts_with("Accept success")) raw->close();
  });
  server->method("s_c_log", &closing);
  start();
  RawClient client(address, false);
  EXPECT_TRUE(client.socket.ended());
  server.reset();
  ASSERT_TRUE(eventually([] { return open_loops() == 0; }));
  for (const std::string& line : lines.notes()) {
    EXPECT_FALSE(line.starts_with("Read error") || line.starts_with("Client Close")) << line;
  }
}

TEST_P(ServerLog, LineIsCutAt1022Characters) {
  install_sink();
  const std::string name(2000, 'n');
  server->method(name.c_str(), on_call([](int, TolkParams*, TolkParams*) { throw 1; }));
  start();
  RawClient client(address);
  ASSERT_TRUE(client.call(name));
  const auto notes = lines.notes();
  const std::string whole = "handler error: " + name;
  EXPECT_EQ(notes.back(), whole.substr(0, 1022));
}

TEST_P(ServerLog, PercentSignsInNamesArePrinted) {
  server->method("%s%n", on_call([](int, TolkParams*, TolkParams*) { throw 1; }));
  install_sink();
  start();
  RawClient client(address);
  ASSERT_TRUE(client.call("%s%n"));
  EXPECT_EQ(lines.notes().back(), "handler error: %s%n: unknown exception\n");
}

TEST_P(ServerLog, LinesOfManyThreadsStayWhole) {
  constexpr int kThreads = 4;
  constexpr int kLines = 200;
  log("x", 1);
  Capture capture;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      for (int line = 0; line < kLines; ++line) refuse_a_call();
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(capture.count("send msg: disconnect... .. ."), kThreads * kLines);
}

TEST_P(ServerLog, SinkCanBeExchangedUnderTraffic) {
  start();
  Counter done;
  std::thread exchanging([&] {
    for (int i = 0; i < 500; ++i) server->method("s_c_log", i % 2 == 0 ? &sink : nullptr);
    done.add();
  });
  Capture capture;
  while (done.value() == 0) RawClient(address, false);
  exchanging.join();
}

}  // namespace
}  // namespace tolk::test
