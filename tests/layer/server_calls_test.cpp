// Calls of a server to its clients.
#include <atomic>
#include <thread>

#include "tests/layer/joined.h"

namespace tolk::test {
namespace {

class LayerServerCalls : public JoinedTest {
 protected:
  // The client's id, once it can be called.
  ClientId id() { return server.clients().at(0); }
};

TEST_F(LayerServerCalls, ClientIsCalledLikeAServer) {
  client.on("double", [](int n) { return 2 * n; });
  EXPECT_EQ(server.call<int>(id(), "double", 21).value(), 42);
  client.on("fail", [] { throw std::runtime_error("no"); });
  EXPECT_EQ(server.call<int>(id(), "fail").error().detail(), "no");
  EXPECT_EQ(server.call<bool>(id(), "double", 21).error().code(), Errc::wrong_type);
}

TEST_F(LayerServerCalls, PostReachesTheClient) {
  Counter posted;
  client.on("note", [posted](int n) mutable {
    EXPECT_EQ(n, 5);
    posted.add();
  });
  EXPECT_TRUE(server.post(id(), "note", 5));
  EXPECT_TRUE(posted.wait_for(1));
}

TEST_F(LayerServerCalls, HandlerMayCallItsCallerBack) {
  client.on("name", [] { return std::string("me"); });
  server.on("greet",
            [](Caller caller) { return "hello " + caller.call<std::string>("name").value(); });
  EXPECT_EQ(client.call<std::string>("greet").value(), "hello me");
  client.on("ask", [](Caller caller) { return caller.call<int>("two").value() + 1; });
  server.on("two", [] { return 2; });
  EXPECT_EQ(server.call<int>(id(), "ask").value(), 3);
}

TEST_F(LayerServerCalls, UnknownClientIsNotConnected) {
  const Error error = server.call(id() + 1, "m").error();
  EXPECT_EQ(error.code(), Errc::not_connected);
  EXPECT_STREQ(error.hint(), "take the ids of clients from on_connect, clients() or a Caller");
  EXPECT_EQ(server.post(id() + 1, "m").error().code(), Errc::not_connected);
}

TEST_F(LayerServerCalls, TimeoutIsReported) {
  Gate gate;
  const OpenAtEnd open(gate);
  client.on("slow", [gate]() mutable { gate.pass(); });
  EXPECT_EQ(server.call(id(), "slow", 50ms).error().code(), Errc::timed_out);
}

TEST_F(LayerServerCalls, UnknownMethodIsReported) {
  EXPECT_EQ(server.call(id(), "absent").error().code(), Errc::no_such_method);
  client.on("absent", [] { return 1; });
  EXPECT_EQ(server.call<int>(id(), "absent").value(), 1);
}

// On a server an unanswered call would return the result of an earlier call with its id.
TEST_F(LayerServerCalls, EarlierReplyIsNotReturnedAfterATimeout) {
  Gate gate;
  const OpenAtEnd open(gate);
  client.on("first", [] { return 1; });
  client.on("second", [gate]() mutable {
    gate.pass();
    return 2;
  });
  for (int i = 0; i < 3; ++i) EXPECT_EQ(server.call<int>(id(), "first").value(), 1);
  EXPECT_EQ(server.call<int>(id(), "second", 50ms).error().code(), Errc::timed_out);
}

TEST_F(LayerServerCalls, ConcurrentCallsGetTheirOwnResults) {
  client.on("square", [](int n) { return n * n; });
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      for (int n = t * 100; n < t * 100 + 50; ++n) {
        if (server.call<int>(id(), "square", n).value_or(-1) != n * n) ++wrong;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
}

TEST(LayerServerAlone, CallsOfAServerThatDoesNotListenFail) {
  Server server;
  const Error error = server.call(1, "m").error();
  EXPECT_EQ(error.code(), Errc::not_connected);
  EXPECT_STREQ(error.what(), "m at client 1: not connected: the server does not listen");
  EXPECT_STREQ(error.hint(), "let the server listen, then call");
  EXPECT_EQ(server.post(1, "m").error().code(), Errc::not_connected);
}

TEST(LayerServerAlone, UnknownMethodOfAPlainClientTimesOut) {
  const auto address = fresh_address(Transport::pipe);
  Server server;
  server.listen(layered(address));
  const ClientPtr client = make_client();
  ASSERT_TRUE(connect_client(client.get(), address));
  const ClientId id = server.clients().at(0);
  EXPECT_EQ(server.call(id, "absent", 50ms).error().code(), Errc::timed_out);
}

TEST(LayerServerAlone, CloseWaitsForItsOwnCalls) {
  const auto address = fresh_address(Transport::pipe);
  Server server;
  server.listen(layered(address));
  RawClient client(address);
  ASSERT_TRUE(eventually([&] { return server.clients().size() == 1; }));
  std::thread caller([&] {
    const auto result = server.call(server.clients().at(0), "m", 300ms);
    EXPECT_FALSE(result);
  });
  ASSERT_TRUE(client.socket.read_message());
  server.close();
  caller.join();
}

// The sweep that would end the call has stopped, until another server sweeps.
TEST(LayerServerAlone, CloseDoesNotWaitForCallsOfAServerThatAClientStopped) {
  const auto address = fresh_address(Transport::pipe);
  Server server(Options{.clients_may_stop = true});
  server.listen(layered(address));
  RawClient client(address);
  ASSERT_TRUE(eventually([&] { return server.clients().size() == 1; }));
  const ClientId id = server.clients().at(0);
  std::thread caller([&] { EXPECT_FALSE(server.call(id, "m", 1s)); });
  EXPECT_TRUE(client.socket.read_message());
  (void)client.call("s_c_close_server");
  server.close();
  Server sweeps;
  sweeps.listen(fresh());
  Client other = connect(sweeps.address());
  other.on("one", [] { return 1; });
  EXPECT_EQ(sweeps.call<int>(sweeps.clients().at(0), "one").value(), 1);
  caller.join();
  EXPECT_TRUE(server.clients().empty());
}

}  // namespace
}  // namespace tolk::test
