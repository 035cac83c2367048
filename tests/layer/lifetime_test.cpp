// Lifetimes: of handlers, connections, results.
#include <atomic>
#include <future>
#include <memory>
#include <thread>

#include "tests/layer/joined.h"

namespace tolk::test {
namespace {

// Counts the handlers that hold a copy of it.
struct Held {
  std::shared_ptr<int> token = std::make_shared<int>(0);
  bool freed() const { return token.use_count() == 1; }
};

auto holding(const Held& held) {
  return [token = held.token] { return *token; };
}

TEST(LayerLifetime, ServerFreesItsHandlers) {
  for (const Transport transport : {Transport::pipe, Transport::tcp4}) {
    Held held;
    {
      Server server;
      server.on("held", holding(held));
      server.listen(layered(fresh_address(transport)));
      server.on("later", holding(held));
    }
    EXPECT_TRUE(held.freed());
  }
}

TEST(LayerLifetime, ServerThatNeverListenedFreesItsHandlers) {
  Held held;
  { Server().on("held", holding(held)); }
  EXPECT_TRUE(held.freed());
}

TEST(LayerLifetime, ServerThatAClientClosedFreesItsHandlers) {
  Held held;
  {
    const auto where = fresh();
    Server server(Options{.clients_may_stop = true});
    server.on("held", holding(held));
    server.listen(where);
    (void)connect(where).call<bool>("s_c_close_server");
    server.wait();
  }
  EXPECT_TRUE(eventually([&] { return held.freed(); }));
}

TEST(LayerLifetime, ClientFreesItsHandlersHoweverItEnds) {
  const auto address = fresh_address(Transport::pipe);
  Held held;
  {
    Client client;
    client.on("held", holding(held));
    EXPECT_FALSE(client.connected());
  }
  EXPECT_TRUE(held.freed());
  {
    Client client;
    client.on("held", holding(held));
    EXPECT_EQ(error_of([&] { client.connect(layered(address)); }).code(), Errc::not_connected);
  }
  EXPECT_TRUE(held.freed());
  {
    RawServer refuses(address, refusing());
    Client client;
    client.on("held", holding(held));
    EXPECT_EQ(error_of([&] { client.connect(layered(address)); }).code(), Errc::refused_version);
  }
  EXPECT_TRUE(held.freed());
  {
    Server server;
    server.listen(layered(address));
    Client client = connect(layered(address));
    client.on("held", holding(held));
  }
  EXPECT_TRUE(held.freed());
}

TEST(LayerLifetime, CloseWaitsForRunningHandlers) {
  Gate gate;
  std::atomic<bool> returned{false};
  const auto where = fresh();
  Server server;
  server.on("slow", [&] {
    gate.pass();
    std::this_thread::yield();
    returned = true;
  });
  server.listen(where);
  Client client = connect(where);
  ASSERT_TRUE(client.post("slow"));
  ASSERT_TRUE(gate.wait_entered());
  std::thread closer([&] {
    server.close();
    EXPECT_TRUE(returned);
  });
  ASSERT_TRUE(eventually([&] { return !server.listening(); }));
  EXPECT_FALSE(returned);
  gate.open();
  closer.join();
}

TEST(LayerLifetime, HandlerMayCloseItsServer) {
  const auto where = fresh();
  Server server;
  server.on("stop", [&] { server.close(); });
  server.listen(where);
  Client client = connect(where);
  ASSERT_TRUE(client.post("stop"));
  server.wait();
  EXPECT_FALSE(server.listening());
}

// That thread gets no answer, and must not wait for the handler.
TEST(LayerLifetime, HandlerMayDestroyAClientAndWaitForAThreadThatCallsThroughIt) {
  Counter asked;
  Counter may_end;
  Counter ended;
  Deferred<> never;
  Server server;
  server.on("never", [&] {
    asked.add();
    return never;
  });
  server.listen(fresh());
  std::thread calling;
  auto client = std::make_unique<Client>();
  client->on("end", [&] {
    may_end.wait_for(1);
    client.reset();
    calling.join();
    ended.add();
  });
  client->connect(server.address());
  calling = std::thread(
      [&through = *client] { EXPECT_FALSE(through.call("never", forever).has_value()); });
  ASSERT_TRUE(asked.wait_for(1));
  may_end.add();
  ASSERT_TRUE(server.post(server.clients().at(0), "end"));
  if (!ended.wait_for(1)) std::abort();  // it hangs
}

TEST(LayerLifetime, CallersOfADestroyedClientAreNotConnected) {
  Server server;
  server.listen(fresh());
  auto client = std::make_unique<Client>();
  std::promise<Errc> told;
  client->on("end", [&](const Caller& caller) {
    client.reset();
    EXPECT_FALSE(caller.post("x"));
    told.set_value(caller.call("x").error().code());
  });
  client->connect(server.address());
  ASSERT_TRUE(server.post(server.clients().at(0), "end"));
  EXPECT_EQ(told.get_future().get(), Errc::not_connected);
}

// The destructor runs while the handler is still in close, and waits for it.
TEST(LayerLifetime, ClientOutlivesTheHandlerThatClosesIt) {
  const auto where = fresh();
  Server server;
  server.listen(where);
  std::atomic<bool> returned{false};
  {
    Client client;
    client.on("stop", [&] {
      client.close();
      returned = true;
    });
    client.connect(where);
    ASSERT_TRUE(server.post(server.clients().at(0), "stop"));
    ASSERT_TRUE(eventually([&] { return !client.connected(); }));
  }
  EXPECT_TRUE(returned);
}

TEST(LayerLifetime, HandlerMayCloseAServerThatIsBeingClosed) {
  Gate gate;
  std::atomic<bool> returned{false};
  const auto where = fresh();
  Server server;
  server.on("stop", [&] {
    gate.pass();
    server.close();
    returned = true;
  });
  server.listen(where);
  Client client = connect(where);
  ASSERT_TRUE(client.post("stop"));
  ASSERT_TRUE(gate.wait_entered());
  std::thread closer([&] {
    server.close();
    EXPECT_TRUE(returned);
  });
  ASSERT_TRUE(eventually([&] { return !server.listening(); }));
  gate.open();
  closer.join();
  EXPECT_TRUE(server.clients().empty());
}

TEST(LayerLifetime, ServerOutlivesTheHandlerThatClosesIt) {
  const auto where = fresh();
  std::atomic<bool> returned{false};
  Client client;
  {
    Server server;
    server.on("stop", [&] {
      server.close();
      returned = true;
    });
    server.listen(where);
    client.connect(where);
    ASSERT_TRUE(client.post("stop"));
    server.wait();
  }
  EXPECT_TRUE(returned);
}

TEST(LayerLifetime, HookMayCloseItsClient) {
  for (const Transport transport : {Transport::pipe, Transport::tcp4}) {
    Held held;
    {
      const auto address = fresh_address(transport);
      RawServer server(address);
      Counter closed;
      Client client;
      client.on("held", holding(held));
      client.on_closed([&] {
        client.close();
        closed.add();
      });
      client.connect(layered(address));
      server.take().close();
      EXPECT_TRUE(closed.wait_for(1));
    }
    EXPECT_TRUE(eventually([&] { return held.freed(); }));
  }
}

TEST(LayerLifetime, HookMayCloseItsServer) {
  for (const Transport transport : {Transport::pipe, Transport::tcp4}) {
    Held held;
    {
      const auto where = layered(fresh_address(transport));
      Server server;
      server.on("held", holding(held));
      server.on_closed([&](ClientId) { server.close(); });
      server.listen(where);
      { const Client client = connect(where); }
      server.wait();
    }
    EXPECT_TRUE(eventually([&] { return held.freed(); }));
  }
}

TEST(LayerLifetime, ClosedClientDoesNotConnect) {
  Client client;
  client.close();
  EXPECT_EQ(error_of([&] { client.connect(fresh()); }).code(), Errc::misuse);
}

TEST(LayerLifetime, CallsOfAClosedClientFail) {
  const auto where = fresh();
  Server server;
  server.listen(where);
  Client client = connect(where);
  client.close();
  client.close();
  EXPECT_FALSE(client.connected());
  EXPECT_EQ(client.call("m").error().code(), Errc::not_connected);
  EXPECT_EQ(client.post("m").error().code(), Errc::not_connected);
  EXPECT_EQ(error_of([&] { client.async("m").get(); }).code(), Errc::not_connected);
  EXPECT_EQ(error_of([&] { client.reconnecting(); }).code(), Errc::misuse);
}

TEST(LayerLifetime, CloseWakesWaitingCalls) {
  Gate gate;
  const auto where = fresh();
  Server server;
  server.on("wait", [gate]() mutable { gate.pass(); });
  const OpenAtEnd open(gate);
  server.listen(where);
  Client client = connect(where);
  std::vector<std::future<void>> calls;
  for (int i = 0; i < 3; ++i) calls.push_back(client.async("wait", forever));
  ASSERT_TRUE(gate.wait_entered(3));
  client.close();
  for (auto& call : calls) {
    EXPECT_EQ(error_of([&] { call.get(); }).code(), Errc::not_connected);
  }
}

TEST(LayerLifetime, LossOfTheServerEndsCallsAsGone) {
  const auto address = fresh_address(Transport::pipe);
  RawServer server(address);
  Counter closed;
  Client client;
  client.on_closed([&] { closed.add(); });
  client.connect(layered(address));
  RawSocket socket = server.take();
  std::future<int> call = client.async<int>("add", forever);
  ASSERT_TRUE(socket.read_message());
  socket.close();
  EXPECT_EQ(error_of([&] { call.get(); }).code(), Errc::gone);
  EXPECT_TRUE(closed.wait_for(1));
  EXPECT_EQ(client.call("add").error().code(), Errc::gone);
  EXPECT_EQ(client.post("add").error().code(), Errc::gone);
}

TEST(LayerLifetime, EndOfAnotherClientInterruptsNoCall) {
  const auto address = fresh_address(Transport::pipe);
  RawServer server(address);
  Client waiting = connect(layered(address));
  RawSocket socket = server.take();
  std::future<int> sum = waiting.async<int>("add", forever);
  const auto call = socket.read_message();
  ASSERT_TRUE(call);
  { const Client other = connect(layered(address)); }
  ASSERT_TRUE(socket.send_frame(reply_payload(*call, BlockWriter().add(5))));
  EXPECT_EQ(sum.get(), 5);
}

TEST(LayerLifetime, ObjectsAreMovable) {
  const auto where = fresh();
  Server server;
  server.on("one", [] { return 1; });
  Server moved = std::move(server);
  moved.listen(where);
  Client client = connect(where);
  Client other = std::move(client);
  EXPECT_EQ(other.call<int>("one").value(), 1);
}

}  // namespace
}  // namespace tolk::test
