// The four ways to stop a server: what is printed, which hooks run, which handlers are deleted.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "tests/e2e/support/process_state.h"
#include "tests/e2e/support/server_test.h"

namespace tolk::test {
namespace {

const std::string kServerClosing = "Server Closing!\n";
const std::string kServerClosed = "Server Closed!\n";

class ServerShutdown : public ServerTest {
 protected:
  void start_with_handlers() {
    server->method("a", answering("a", deleted));
    server->method("b", answering("b", deleted));
    server->methodall(on_any_call([](const char*, int, TolkParams*, TolkParams*) {}, deleted));
    start();
  }
  static constexpr int kHandlers = 3;

  // A client asks the server to close, and waits for its own end.
  void close_from_a_client() {
    RawClient client(address);
    const auto answer = client.call("s_c_close_server");
    EXPECT_TRUE(answer && answer->at(0) && *answer->at(0) == Scalar(true));
    EXPECT_TRUE(client.socket.ended());
    EXPECT_TRUE(eventually([&] { return !server->isok(); }));
  }

  Counter deleted;
};
TOLK_OVER_TRANSPORTS(ServerShutdown);

TEST_P(ServerShutdown, ClosePrintsTwoLines) {
  start();
  Capture capture;
  EXPECT_TRUE(server->close());
  EXPECT_FALSE(server->isok());
  EXPECT_EQ(capture.text(), kServerClosing + kServerClosed);
}

TEST_P(ServerShutdown, SecondClosePrintsTheFirstLineOnly) {
  start();
  server->close();
  Capture capture;
  EXPECT_TRUE(server->close());
  EXPECT_EQ(capture.text(), kServerClosing);
}

TEST_P(ServerShutdown, CloseOfANeverStartedServerPrintsTheFirstLine) {
  Capture capture;
  EXPECT_TRUE(server->close());
  EXPECT_EQ(capture.text(), kServerClosing);
}

TEST_P(ServerShutdown, CloseDeletesEveryHandler) {
  start_with_handlers();
  server->close();
  EXPECT_EQ(deleted.value(), kHandlers);
}

TEST_P(ServerShutdown, CloseOfANeverStartedServerDeletesNoHandler) {
  FunctionHandler handler([](int, TolkParams*, TolkParams*) {}, deleted);
  server->method("a", &handler);
  server->close();
  server.reset();
  EXPECT_EQ(deleted.value(), 0);
}

TEST_P(ServerShutdown, CloseEndsEveryConnectionSilently) {
  Counter told;
  server->method("s_c_closed", counting(told));
  Capture capture;
  start();
  RawClient silent(address, false);
  ASSERT_NE(capture.line_starting("Accept success"), "");
  RawClient greeted(address);
  ASSERT_TRUE(greeted.is_greeted());
  capture.clear();
  server->close();
  EXPECT_EQ(greeted.socket.read_until_end(), "");
  EXPECT_TRUE(silent.socket.ended());
  EXPECT_EQ(capture.text(), kServerClosing + kServerClosed);
  EXPECT_EQ(told.value(), 0) << "the hook runs only for connections that end by themselves";
  EXPECT_EQ(server->GetClientCount(), 1) << "the count keeps its last value";
}

TEST_P(ServerShutdown, AddressIsFreeAfterClose) {
  start();
  server->close();
  ServerPtr next = make_server();
  EXPECT_TRUE(start_server(next.get(), address));
  EXPECT_TRUE(RawClient(address).is_greeted());
}

TEST_P(ServerShutdown, CallsAfterCloseAreRefused) {
  start();
  server->close();
  Capture capture;
  EXPECT_EQ(server->SendMsg(1, "a", nullptr, 1, 0), nullptr);
  EXPECT_EQ(server->PostMsg(1, "a", nullptr, 1), nullptr);
  const std::string line = "send msg: disconnect... .. .\n";
  EXPECT_EQ(capture.text(), line + line);
}

TEST_P(ServerShutdown, CloseasyncOfANeverStartedServerPrintsALine) {
  Capture capture;
  EXPECT_TRUE(server->closeasync());
  EXPECT_EQ(capture.text(), "server closeasync\n");
}

// Only a pipe server obeys closeasync; a TCP server goes on.
TEST_P(ServerShutdown, CloseasyncStopsAPipeServerAndKeepsHandlers) {
  start_with_handlers();
  Capture capture;
  EXPECT_TRUE(server->closeasync());
  EXPECT_EQ(server->isok(), !is_pipe());
  EXPECT_EQ(capture.text(), is_pipe() ? kServerClosing + kServerClosed : "bad close\n");
  EXPECT_EQ(deleted.value(), 0);
  if (!is_pipe()) {
    EXPECT_TRUE(RawClient(address).is_greeted());
  }
}

TEST_P(ServerShutdown, CloseasyncPrintsOnTheLoopThreadAndCloseOnTheCallers) {
  std::atomic<std::thread::id> loop;
  server->method("s_c_createport", on_call([&](int, TolkParams*, TolkParams*) {
                   loop = std::this_thread::get_id();
                 }));
  std::atomic<int> lines{0};
  std::atomic<std::thread::id> expected;
  FunctionHandler sink{[&](int, TolkParams*, TolkParams*) {
                         EXPECT_EQ(std::this_thread::get_id(), expected.load());
                         ++lines;
                       },
                       deleted};
  start();
  server->method("s_c_log", &sink);
  expected = is_pipe() ? loop.load() : std::this_thread::get_id();
  EXPECT_TRUE(is_pipe() ? server->closeasync() : server->close());
  EXPECT_EQ(lines, 2);
  expected = std::this_thread::get_id();
  server.reset();  // before the sink
}

TEST_P(ServerShutdown, SecondCloseasyncPrintsItsLine) {
  start();
  server->closeasync();
  Capture capture;
  EXPECT_TRUE(server->closeasync());
  EXPECT_EQ(capture.text(), is_pipe() ? "server closeasync\n" : "bad close\n");
}

TEST_P(ServerShutdown, DestroyDeletesHandlersOnTcpAndNoneOnAPipe) {
  start_with_handlers();
  Capture capture;
  server.reset();
  EXPECT_EQ(capture.text(), kServerClosing + kServerClosed);
  EXPECT_EQ(deleted.value(), is_pipe() ? 0 : kHandlers);
}

TEST_P(ServerShutdown, CloseRequestIsAnsweredThenDeletesEveryHandler) {
  start_with_handlers();
  Capture capture;
  close_from_a_client();
  EXPECT_TRUE(capture.wait_for_line("Server Closed!"));
  EXPECT_EQ(deleted.value(), kHandlers);
  const std::string text = capture.text();
  EXPECT_TRUE(text.ends_with(kServerClosing + kServerClosed)) << text;
}

TEST_P(ServerShutdown, CloseRequestOfALibraryClientReturnsTrue) {
  start();
  ClientPtr client = make_client();
  ASSERT_TRUE(connect_client(client.get(), address));
  TolkParams* const answer = client->SendMsg("s_c_close_server", nullptr, 0, 0);
  ASSERT_NE(answer, nullptr);
  ASSERT_NE(answer->GetValue(0), nullptr);
  EXPECT_TRUE(answer->GetValue(0)->GetBool());
  EXPECT_TRUE(eventually([&] { return !server->isok(); }));
}

TEST_P(ServerShutdown, NothingAfterACloseRequestIsDispatched) {
  Counter called;
  server->SetCustomReleaseEvent();
  FunctionHandler handler([called](int, TolkParams*, TolkParams*) mutable { called.add(); });
  server->method("a", &handler);
  start();
  RawClient client(address);
  ASSERT_TRUE(client.is_greeted());
  const std::string call = frame(call_payload("a", 1, {}, "0x1"));
  const std::string close = frame(call_payload("s_c_close_server", 1));
  Capture capture;
  client.socket.send(close + call + close + prefix(0) + call);
  const auto answer = client.socket.read_message();
  ASSERT_TRUE(answer);
  EXPECT_EQ(*answer->at(0), Scalar(true));
  EXPECT_EQ(client.socket.read_until_end(), "");
  EXPECT_TRUE(capture.wait_for_line("Server Closed!"));
  EXPECT_EQ(capture.text(), kServerClosing + kServerClosed);
  server.reset();
  EXPECT_EQ(called.value(), 0);
}

// The answer is queued after a reply that the client has not read yet.
TEST_P(ServerShutdown, AnswerToACloseRequestFollowsALargeReply) {
  register_echo();
  start();
  RawClient client(address, false);
  const std::string large(4 << 20, 'x');
  std::thread sending(
      [&] { client.socket.send_frame(call_payload("echo", 1, BlockWriter().add(large).bytes())); });
  ASSERT_FALSE(client.socket.is_quiet(kLimit));  // the large reply is on its way
  sending.join();
  client.socket.send_frame(call_payload("s_c_close_server", 2));
  const auto first = client.socket.read_message();
  ASSERT_TRUE(first);
  EXPECT_EQ(first->string_at(0).size(), large.size());
  const auto second = client.socket.read_message();
  ASSERT_TRUE(second);
  EXPECT_EQ(*second->at(0), Scalar(true));
}

// A client that does not read its answer cannot keep the server from closing.
TEST_P(ServerShutdown, CloseRequestOfAClientThatDoesNotReadIsObeyed) {
  register_echo();
  start();
  RawClient client(address, false);
  client.socket.shrink_receive_buffer();
  client.socket.send_frame(
      call_payload("echo", 1, BlockWriter().add(std::string(8 << 20, 'x')).bytes()));
  ASSERT_FALSE(client.socket.is_quiet(kLimit));
  client.socket.send_frame(call_payload("s_c_close_server", 2));
  EXPECT_TRUE(eventually([&] { return !server->isok(); }));
  EXPECT_TRUE(eventually([] { return open_loops() == 0; }));
}

TEST_P(ServerShutdown, CustomReleaseKeepsEveryHandler) {
  FunctionHandler one([](int, TolkParams*, TolkParams*) {}, deleted);
  FunctionCatchAll all([](const char*, int, TolkParams*, TolkParams*) {}, deleted);
  server->SetCustomReleaseEvent();
  server->method("a", &one);
  server->methodall(&all);
  start();
  server->close();
  server.reset();
  EXPECT_EQ(deleted.value(), 0);
}

TEST_P(ServerShutdown, CustomReleaseKeepsHandlersAfterACloseRequest) {
  FunctionHandler one([](int, TolkParams*, TolkParams*) {}, deleted);
  server->SetCustomReleaseEvent();
  server->method("a", &one);
  start();
  close_from_a_client();
  server.reset();
  EXPECT_EQ(deleted.value(), 0);
}

TEST_P(ServerShutdown, BusyHandlerIsDeletedWhenItReturns) {
  Gate gate;
  const OpenAtEnd open(gate);
  Counter idle_deleted;
  server->method("wait", blocking(gate, deleted));
  server->method("idle", answering("x", idle_deleted));
  start();
  RawClient client(address);
  client.post("wait");
  ASSERT_TRUE(gate.wait_entered());
  const Stopwatch watch;
  server->close();
  EXPECT_LT(watch.elapsed(), Milliseconds(900)) << "close does not wait for handlers";
  EXPECT_EQ(idle_deleted.value(), 1);
  EXPECT_EQ(deleted.value(), 0);
  gate.open();
  EXPECT_TRUE(deleted.wait_for(1));
  EXPECT_TRUE(eventually([] { return open_loops() == 0; }));
  EXPECT_EQ(deleted.value(), 1);
}

TEST_P(ServerShutdown, CloseFromAHandlerReturns) {
  Counter closed;
  IServer* const raw = server.get();
  server->method("close", on_call(
                              [=](int, TolkParams*, TolkParams*) mutable {
                                raw->close();
                                closed.add();
                              },
                              deleted));
  start();
  RawClient client(address);
  client.post("close");
  EXPECT_TRUE(closed.wait_for(1));
  EXPECT_TRUE(deleted.wait_for(1));
  EXPECT_TRUE(client.socket.ended());
  EXPECT_FALSE(server->isok());
}

TEST_P(ServerShutdown, CloseDropsQueuedCalls) {
  Gate gate;
  const OpenAtEnd open(gate);
  Counter called;
  auto last = std::make_unique<FunctionHandler>(
      [called](int, TolkParams*, TolkParams*) mutable { called.add(); });
  server->SetCustomReleaseEvent();
  server->method("wait", blocking(gate));
  server->method("last", last.get());
  start();
  RawClient client(address);
  constexpr int kWorkers = 4;
  for (int i = 0; i < kWorkers; ++i) client.post("wait");
  ASSERT_TRUE(gate.wait_entered(kWorkers));
  client.post("last");
  ASSERT_TRUE(RawClient(address, false).socket.is_quiet());
  server->close();
  last.reset();  // the host deletes it: nothing may call it from now on
  gate.open();
  EXPECT_TRUE(eventually([] { return open_loops() == 0; }));
  EXPECT_EQ(called.value(), 0);
}

TEST_P(ServerShutdown, ReplyAfterCloseIsDroppedSilently) {
  Gate gate;
  const OpenAtEnd open(gate);
  server->method("wait", blocking(gate));
  start();
  RawClient client(address);
  client.post("wait");
  ASSERT_TRUE(gate.wait_entered());
  Capture capture;
  server->close();
  gate.open();
  EXPECT_TRUE(eventually([] { return open_loops() == 0; }));
  EXPECT_EQ(capture.text(), kServerClosing + kServerClosed);
}

TEST_P(ServerShutdown, DestroyLetsARunningHandlerFinish) {
  Gate gate;
  const OpenAtEnd open(gate);
  server->method("wait", blocking(gate, deleted));
  start();
  RawClient client(address);
  client.post("wait");
  ASSERT_TRUE(gate.wait_entered());
  server.reset();
  gate.open();
  EXPECT_TRUE(eventually([] { return open_loops() == 0; }));
  EXPECT_EQ(deleted.value(), is_pipe() ? 0 : 1);
}

TEST_P(ServerShutdown, DestroyGivesUpWaitingForARunningHook) {
  Gate gate;
  const OpenAtEnd open(gate);
  server->method("s_c_connect", blocking(gate, deleted));
  start();
  const RawClient client(address, false);
  ASSERT_TRUE(gate.wait_entered());
  Capture capture;
  server.reset();
  EXPECT_EQ(capture.count("bad close"), is_pipe() ? 1 : 0);
  gate.open();
  EXPECT_TRUE(eventually([] { return open_loops() == 0; }));
}

TEST_P(ServerShutdown, OneObjectUnderTwoNamesIsDeletedOnce) {
  class Both : public IServerMethod, public IMethodAll {
   public:
    explicit Both(Counter counter) : deleted_(std::move(counter)) {}
    ~Both() override { deleted_.add(); }
    void callback(int, TolkParams*, TolkParams*) override {}
    void callback(const char*, int, TolkParams*, TolkParams*) override {}

   private:
    Counter deleted_;
  };
  auto* const both = new Both(deleted);
  server->method("a", both);
  server->method("b", both);
  server->methodall(both);
  start();
  server->close();
  EXPECT_EQ(deleted.value(), 1);
}

TEST_P(ServerShutdown, CloseUnderTrafficEndsEveryConnection) {
  register_echo();
  start();
  Counter stop;
  std::vector<std::thread> callers;
  Counter answered;
  for (int i = 0; i < 4; ++i) {
    callers.emplace_back([&] {
      RawClient client(address);
      while (serves(client)) answered.add();
      stop.add();
    });
  }
  EXPECT_TRUE(answered.wait_for(100));
  if (is_pipe()) {
    server->closeasync();
  } else {
    server->close();
  }
  for (auto& caller : callers) caller.join();
  EXPECT_EQ(stop.value(), 4);
}

TEST_P(ServerShutdown, CloseFromSeveralThreadsClosesOnce) {
  start_with_handlers();
  Capture capture;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) threads.emplace_back([&] { server->close(); });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(deleted.value(), kHandlers);
  EXPECT_EQ(capture.count("Server Closing!"), 4);
  EXPECT_EQ(capture.count("Server Closed!"), 1);
}

TEST_P(ServerShutdown, CloseLeaksNoThreadAndNoDescriptor) {
  { RawClient warm_up(address, false); }
  const auto one_life = [&] {
    ServerPtr one = make_server();
    ASSERT_TRUE(start_server(one.get(), address));
    RawClient client(address);
    ASSERT_TRUE(client.is_greeted());
    one->close();
  };
  one_life();
  ASSERT_TRUE(eventually([] { return open_loops() == 0; }));
  const int descriptors = most_descriptors();
  const int running = most_threads();
  for (int i = 0; i < 10; ++i) one_life();
  EXPECT_TRUE(eventually([&] { return open_descriptors() <= descriptors; }))
      << open_descriptors() << " of " << descriptors;
  EXPECT_TRUE(eventually([&] { return threads() <= running; })) << threads() << " of " << running;
}

}  // namespace
}  // namespace tolk::test
