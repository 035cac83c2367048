// No handler, hook or catch-all begins once the server is destroyed. A server that closes refuses
// the calls that come too late, and drops them where the host keeps its handlers. A method that a
// catch-all registers is called at once.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "tests/e2e/client_fixture.h"
#include "tests/e2e/support/process_state.h"
#include "tests/e2e/support/server_test.h"

namespace tolk::test {
namespace {

// Its destructor blocks until the test lets it go on.
class DiesSlowly final : public FunctionHandler {
 public:
  explicit DiesSlowly(Gate gate)
      : FunctionHandler([](int, TolkParams*, TolkParams*) {}), gate_(std::move(gate)) {}
  ~DiesSlowly() override { gate_.pass(); }

 private:
  Gate gate_;
};

class ServerEnd : public ServerTest {
 protected:
  static constexpr int kWorkers = 4;

  void start_with_handlers() {
    server->method("wait", blocking(workers));
    server->method("m", noting("m"));
    server->method("s_c_closed", noting("s_c_closed"));
    server->method("s_c_connect", on_call([begun = begun, holds = holds_next, loop = loop](
                                              int, TolkParams*, TolkParams*) mutable {
                     begun.note("s_c_connect");
                     if (holds->exchange(false)) loop.pass();
                   }));
    server->methodall(on_any_call([begun = begun](const char* name, int, TolkParams*,
                                                  TolkParams*) mutable { begun.note(name); }));
    start();
  }
  IServerMethod* noting(const char* name) {
    return on_call(
        [begun = begun, name](int, TolkParams*, TolkParams*) mutable { begun.note(name); });
  }
  // Blocks all workers of the process in calls of `client`.
  void hold_workers(RawClient& client) {
    for (int i = 0; i < kWorkers; ++i) client.post("wait");
    ASSERT_TRUE(workers.wait_entered(kWorkers));
  }
  // The server has read and queued the call; no worker has begun it.
  static void queue_call(RawClient& client, const char* name) {
    const Capture capture;
    client.post(name);
    client.socket.send(prefix(0));  // a line shows that everything before it has been read
    ASSERT_TRUE(capture.wait_for_line("event empty!"));
  }
  // Blocks the loop thread in the hook of a new connection.
  RawSocket hold_loop() {
    *holds_next = true;
    RawSocket held = RawSocket::connect_to(address);
    EXPECT_TRUE(loop.wait_entered());
    return held;
  }
  // Whether more than so many handlers and hooks have begun.
  bool more_begins(std::size_t than) {
    return eventually([&] { return begun.notes().size() > than; }, kQuiet);
  }
  static bool ends() {
    return eventually([] { return open_loops() == 0; });
  }

  Gate workers;
  Gate loop;
  const OpenAtEnd open_workers{workers};
  const OpenAtEnd open_loop{loop};
  const std::shared_ptr<std::atomic<bool>> holds_next = std::make_shared<std::atomic<bool>>(false);
  Journal begun;
};
TOLK_OVER_TRANSPORTS(ServerEnd);

TEST_P(ServerEnd, QueuedCallsDoNotBeginOnceItIsDestroyedAlthoughAHookHoldsItsLoop) {
  start_with_handlers();
  RawClient client(address);
  hold_workers(client);
  queue_call(client, "m");
  queue_call(client, "for the catch-all");
  const RawSocket held = hold_loop();
  server.reset();
  const auto before = begun.notes();
  workers.open();
  EXPECT_FALSE(more_begins(before.size()));
  loop.open();
  EXPECT_TRUE(ends());
  EXPECT_EQ(begun.notes(), before);
}

TEST_P(ServerEnd, HooksAndCallsDoNotBeginOnceItIsDestroyedAlthoughAHookHoldsItsLoop) {
  start_with_handlers();
  RawClient calling(address);
  RawClient leaving(address);
  ASSERT_TRUE(calling.is_greeted() && leaving.is_greeted());
  const RawSocket held = hold_loop();
  const RawSocket coming = RawSocket::connect_to(address);
  const RawSocket another = RawSocket::connect_to(address);
  leaving.socket.close();
  calling.post("m");
  calling.post("for the catch-all");
  server.reset();
  const auto before = begun.notes();
  loop.open();
  EXPECT_TRUE(ends());
  EXPECT_EQ(begun.notes(), before);
}

// The loop thread is blocked in the hook of a client that has left, and calls of others are unread.
TEST_P(ServerEnd, CallsBesideOneThatLeavesDoNotBeginOnceItIsDestroyed) {
  Gate hook;
  const OpenAtEnd open_hook(hook);
  start_with_handlers();
  server->method("s_c_closed", blocking(hook));
  std::vector<std::unique_ptr<RawClient>> clients;
  for (int i = 0; i < 8; ++i) clients.push_back(std::make_unique<RawClient>(address));
  clients[0]->socket.close();
  ASSERT_TRUE(hook.wait_entered());
  for (std::size_t i = 1; i < clients.size(); ++i) clients[i]->post("m");
  server.reset();
  const auto before = begun.notes();
  hook.open();
  EXPECT_TRUE(ends());
  EXPECT_EQ(begun.notes(), before);
}

// The host keeps the method, so "no event" would be a wrong answer.
TEST_P(ServerEnd, CallToAHandlerThatTheHostKeepsIsDroppedByAServerThatCloses) {
  server->SetCustomReleaseEvent();
  start_with_handlers();
  RawClient client(address);
  hold_workers(client);
  queue_call(client, "m");
  const RawSocket held = hold_loop();
  const Capture capture;
  const Meanwhile closing([this] { server->close(); });
  ASSERT_TRUE(capture.wait_for_line("Server Closing!"));
  EXPECT_FALSE(closing.is_done(kQuiet)) << "it waits for its loop";
  workers.open();
  more_begins(begun.notes().size());  // time for the worker to begin the call or to drop it
  loop.open();
  EXPECT_TRUE(closing.is_done());
  while (const auto message = client.socket.read_message()) {
    EXPECT_EQ(message->string_at(0), "");
  }
}

TEST_P(ServerEnd, CallToAHandlerThatIsDeletedIsAnsweredThatThereIsNoSuchMethod) {
  Gate dying;
  const OpenAtEnd open_dying(dying);
  server->method("dies slowly", new DiesSlowly(dying));
  server->method("m", answering("m"));
  start();
  RawClient client(address);
  ASSERT_TRUE(client.is_greeted());
  const Meanwhile closing([this] { server->close(); });
  ASSERT_TRUE(dying.wait_entered());
  const auto answer = client.call("m");
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->string_at(0), "no event: m");
  dying.open();
  EXPECT_TRUE(closing.is_done());
}

// What was asked for first is carried out, so its lines come out too. On TCP nothing hears it.
TEST_P(ServerEnd, CloseDuringAHeldCloseasyncLeavesTheLinesOfBoth) {
  start_with_handlers();
  const RawSocket held = hold_loop();
  const Capture capture;
  server->closeasync();
  std::thread closing([this] { server->close(); });
  ASSERT_TRUE(capture.wait_for_line("Server Closing!"));
  loop.open();
  closing.join();
  EXPECT_TRUE(ends());
  const std::string both = "Server Closing!\nServer Closed!\n";
  std::string lines = capture.text();
  lines.erase(lines.find("Accept success"), lines.find("Server Clos", 40) - lines.find("Accept"));
  EXPECT_EQ(lines, is_pipe() ? "bad close\nServer Closing!\n" + both + "Server Closed!\n"
                             : "bad close\n" + both);
}

class MadeOnDemand : public ServerTest {};
TOLK_OVER_TRANSPORTS(MadeOnDemand);

TEST_P(MadeOnDemand, MethodThatTheCatchAllRegistersIsCalledAtOnce) {
  IServer* const raw = server.get();
  Counter asked;
  server->methodall(
      on_any_call([raw, asked](const char* name, int, TolkParams*, TolkParams*) mutable {
        asked.add();
        raw->method(name, answering("made"));
      }));
  start();
  RawClient client(address);
  for (int round = 0; round < 2; ++round) {
    const auto answer = client.call("m");
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->string_at(0), "made");
    EXPECT_EQ(answer->values.size(), 1U);
  }
  EXPECT_EQ(asked.value(), 1);
}

TEST_P(MadeOnDemand, WhatTheCatchAllAnsweredStaysInFront) {
  IServer* const raw = server.get();
  server->methodall(on_any_call([raw](const char* name, int, TolkParams*, TolkParams* out) {
    out->AddString("first");
    raw->method(name, answering("made"));
  }));
  start();
  RawClient client(address);
  const auto answer = client.call("m");
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->string_at(0), "first");
  EXPECT_EQ(answer->string_at(1), "made");
  EXPECT_EQ(answer->values.size(), 2U);
}

}  // namespace
}  // namespace tolk::test
