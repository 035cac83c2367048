// Clients that connect and leave: hooks, ids, counts and lines.
#include <gtest/gtest.h>

#include <set>

#include "tests/e2e/support/process_state.h"
#include "tests/e2e/support/server_test.h"

namespace tolk::test {
namespace {

class ServerClients : public ServerTest {
 protected:
  // A connection that the server has accepted and read from.
  RawClient greeted() {
    RawClient client(address);
    EXPECT_TRUE(client.is_greeted());
    return client;
  }
  bool serves_anybody() { return greeted().is_greeted(); }
  // The connect hook posts "hello" to the client that came before.
  void start_with_posting_hook() {
    server->method("s_c_connect", on_call([raw = server.get(), last = newest_id](
                                              int id, TolkParams*, TolkParams*) {
                     const int before = last->exchange(id);
                     if (before != 0) raw->PostMsg(before, "hello", nullptr, 1);
                   }));
    start();
  }
  // The client leaves an answer unread: the server then reads an error instead of the end.
  void leave_with_an_error(RawClient& client) const {
    client.socket.send_frame(call_payload("foo", 1, {}, "0x1"));
    ASSERT_FALSE(client.socket.is_quiet(kLimit));
    client.socket.close();
  }
};
TOLK_OVER_TRANSPORTS(ServerClients);

TEST_P(ServerClients, LinesOfAConnectionComeInOrder) {
  Capture capture;
  server->method("s_c_connect", noting_id());
  start();
  RawClient client = greeted();
  const int accepted = number_after(capture.line_starting("Accept success"), "success: ");
  client.socket.close();
  const std::string until_now =
      start_line() + accept_line(accepted, *newest_id, 1) + close_line(*newest_id);
  EXPECT_TRUE(capture.wait_for_text(until_now)) << capture.text();
  server.reset();
  EXPECT_EQ(capture.text(), until_now + "Server Closing!\nServer Closed!\n");
}

TEST_P(ServerClients, AcceptLineCountsEveryAcceptOfTheProcess) {
  Capture capture;
  server->method("s_c_connect", noting_id());
  start();
  const RawClient one = greeted();
  const int accepted = number_after(capture.lines().back(), "success: ");
  const RawClient two = greeted();
  EXPECT_EQ(capture.lines().back() + "\n", accept_line(accepted + 1, *newest_id, 2));
}

TEST_P(ServerClients, AcceptLineCountsNoConnectionThatHasEnded) {
  Capture capture;
  server->method("s_c_connect", noting_id());
  start();
  RawClient leaves = greeted();
  const int accepted = number_after(capture.lines().back(), "success: ");
  leaves.socket.close();
  ASSERT_NE(capture.line_starting("Client Close: "), "");
  const RawClient stays = greeted();
  EXPECT_EQ(capture.lines().back() + "\n", accept_line(accepted + 1, *newest_id, 1));
}

TEST_P(ServerClients, ReadErrorIsPrintedBeforeTheCloseLine) {
  Capture capture;
  server->method("s_c_connect", noting_id());
  start();
  RawClient client = greeted();
  capture.clear();
  leave_with_an_error(client);
  EXPECT_TRUE(capture.wait_for_text(reset_line() + close_line(*newest_id))) << capture.text();
}

TEST_P(ServerClients, HooksAndLinesComeInOrder) {
  Journal journal;
  const auto hook = [journal](const char* name) {
    return on_call([=](int id, TolkParams* in, TolkParams* out) mutable {
      const bool nothing = in == nullptr && out == nullptr;
      journal.note(std::string(name) + (nothing ? " " : " with blocks ") + std::to_string(id));
    });
  };
  server->method("s_c_log", on_call([journal](int, TolkParams* in, TolkParams*) mutable {
                   journal.note(string_at(in, 0));
                 }));
  server->method("s_c_connect", hook("connect"));
  server->method("s_c_closed", hook("closed"));
  start();
  RawClient client = greeted();
  leave_with_an_error(client);
  const bool told = !reset_line().empty();
  ASSERT_TRUE(journal.wait_for(told ? 6 : 5));
  const auto notes = journal.notes();
  const int id = number_after(notes[1], "connect ");
  const int accepted = number_after(notes[2], "success: ");
  EXPECT_NE(id, 0);
  std::vector<std::string> expected{start_line(), "connect " + std::to_string(id),
                                    accept_line(accepted, id, 1)};
  if (told) expected.push_back(reset_line());
  expected.insert(expected.end(), {"closed " + std::to_string(id), close_line(id)});
  EXPECT_EQ(notes, expected);
}

TEST_P(ServerClients, MethodsGetTheIdThatTheHooksGot) {
  server->method("s_c_connect", noting_id());
  server->method("who", on_call([](int id, TolkParams*, TolkParams* out) { out->AddInt(id); }));
  start();
  RawClient client = greeted();
  const auto answer = client.call("who");
  ASSERT_TRUE(answer && answer->at(0));
  EXPECT_EQ(*answer->at(0), Scalar(newest_id->load()));
}

TEST_P(ServerClients, CountIncludesOnlyClientsThatHaveSentSomething) {
  Capture capture;
  start();
  RawClient client(address, false);
  ASSERT_NE(capture.line_starting("Accept success"), "");
  EXPECT_EQ(server->GetClientCount(), 0);
  ASSERT_TRUE(client.call("foo"));
  EXPECT_EQ(server->GetClientCount(), 1);
  const RawClient second = greeted();
  EXPECT_EQ(server->GetClientCount(), 2);
  client.socket.close();
  EXPECT_TRUE(eventually([&] { return server->GetClientCount() == 1; }));
}

TEST_P(ServerClients, OneByteIsEnoughToBeCounted) {
  start();
  RawClient client(address, false);
  client.socket.send("\x09");
  EXPECT_TRUE(eventually([&] { return server->GetClientCount() == 1; }));
}

// This holds for a client that never sent anything, too: its end is its first read.
TEST_P(ServerClients, CountInHooksExcludesTheNewAndIncludesTheLeavingClient) {
  Journal journal;
  IServer* const raw = server.get();
  const auto count = [=](const char* name) {
    return on_call([=](int, TolkParams*, TolkParams*) mutable {
      journal.note(name + std::to_string(raw->GetClientCount()));
    });
  };
  server->method("s_c_connect", count("connect "));
  server->method("s_c_closed", count("closed "));
  start();
  RawClient silent(address, false);
  ASSERT_TRUE(journal.wait_for(1));
  silent.socket.close();
  ASSERT_TRUE(journal.wait_for(2));
  EXPECT_EQ(journal.notes(), (std::vector<std::string>{"connect 0", "closed 1"}));
  EXPECT_TRUE(eventually([&] { return server->GetClientCount() == 0; }));
}

TEST_P(ServerClients, IdsAreNeverReused) {
  constexpr int kClients = 300;
  Capture capture;
  std::mutex mutex;
  std::multiset<int> ids;
  server->method("s_c_connect", on_call([&](int id, TolkParams*, TolkParams*) {
                   const std::lock_guard<std::mutex> lock(mutex);
                   ids.insert(id);
                 }));
  start();
  for (int i = 0; i < kClients; ++i) greeted().socket.close();
  server->close();
  EXPECT_EQ(ids.size(), std::size_t{kClients});
  EXPECT_EQ(std::set<int>(ids.begin(), ids.end()).size(), std::size_t{kClients});
  EXPECT_FALSE(ids.contains(0));
}

TEST_P(ServerClients, ThatHaveLeftLeakNoDescriptors) {
  start();
  ASSERT_TRUE(serves_anybody());
  const int before = most_descriptors();
  for (int i = 0; i < 100; ++i) greeted();
  EXPECT_TRUE(eventually([&] { return server->GetClientCount() == 0; }));
  EXPECT_TRUE(eventually([&] { return open_descriptors() <= before; }))
      << open_descriptors() << " of " << before;
}

TEST_P(ServerClients, ThrowingHooksChangeNothing) {
  server->method("s_c_connect", on_call([](int, TolkParams*, TolkParams*) { throw 1; }));
  server->method("s_c_closed", on_call([](int, TolkParams*, TolkParams*) { throw 1; }));
  start();
  greeted().socket.close();
  EXPECT_TRUE(eventually([&] { return server->GetClientCount() == 0; }));
  EXPECT_TRUE(greeted().is_greeted());
}

TEST_P(ServerClients, NothingFollowsAConnectHookThatClosesTheServer) {
  Capture capture;
  IServer* const raw = server.get();
  server->method("s_c_connect",
                 on_call([raw](int, TolkParams*, TolkParams*) { EXPECT_TRUE(raw->close()); }));
  start();
  RawClient client(address, false);
  EXPECT_TRUE(client.socket.ended());
  EXPECT_TRUE(eventually([&] { return !server->isok(); }));
  EXPECT_EQ(capture.text(), start_line() + "Server Closing!\nServer Closed!\n");
}

TEST_P(ServerClients, ConnectHookMayPostToAnotherClient) {
  start_with_posting_hook();
  RawClient first = greeted();
  const RawClient second(address, false);
  const auto post = first.socket.read_message();
  ASSERT_TRUE(post);
  EXPECT_EQ(post->name(), "hello");
  EXPECT_FALSE(post->token());
}

// A client may still be called in the hook of its end: it stays in the table until the hook
// returns.
TEST_P(ServerClients, CallFromTheClosedHookReturns) {
  Counter returned;
  IServer* const raw = server.get();
  server->method("s_c_closed", on_call([=](int id, TolkParams*, TolkParams*) mutable {
                   if (raw->SendMsg(id, "x", nullptr, 77, 0) == nullptr) returned.add();
                 }));
  start();
  greeted().socket.close();
  EXPECT_TRUE(returned.wait_for(1));
  EXPECT_TRUE(greeted().is_greeted());
}

}  // namespace
}  // namespace tolk::test
