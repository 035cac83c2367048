// Connecting and listening, and the errors when they fail.
#include <atomic>
#include <cstdlib>
#include <future>
#include <iostream>
#include <thread>

#include "tests/layer/joined.h"

namespace tolk::test {
namespace {

TEST(LayerConnect, FailsAsNotConnectedWhenNobodyListens) {
  const auto where = fresh();
  const Error error = error_of([&] { connect(where); });
  EXPECT_EQ(error.code(), Errc::not_connected);
  EXPECT_EQ(error.address(), where.text());
  EXPECT_EQ(error.what(), where.text() + ": not connected: nobody listens there");
}

TEST(LayerConnect, RefusedVersionIsReported) {
  const auto address = fresh_address(Transport::pipe);
  RawServer server(address, refusing());
  EXPECT_EQ(error_of([&] { connect(layered(address)); }).code(), Errc::refused_version);
}

TEST(LayerConnect, ServerThatHangsUpIsReportedAsGone) {
  const auto address = fresh_address(Transport::pipe);
  RawServer server(address, hanging_up());
  const Error error = error_of([&] { connect(layered(address)); });
  EXPECT_EQ(error.code(), Errc::gone);
  EXPECT_THAT(error.hint(), testing::HasSubstr("it may be no server of this library"));
}

TEST(LayerConnect, InvalidAddressIsReported) {
  EXPECT_EQ(error_of([] { connect("nowhere"); }).code(), Errc::bad_address);
}

TEST(LayerConnect, PatienceWaitsForALaterServer) {
  const auto where = fresh();
  Server server;
  server.on("add", [](int a, int b) { return a + b; });
  std::thread later([&] {
    std::this_thread::sleep_for(50ms);  // it may as well be there first
    server.listen(where);
  });
  Client client = connect(where, {.patience = 20s});
  later.join();
  EXPECT_EQ(client.call<int>("add", 1, 2).value(), 3);
}

TEST(LayerConnect, FailedConnectCanBeRetried) {
  const auto where = fresh();
  Client client;
  EXPECT_EQ(error_of([&] { client.connect(where); }).code(), Errc::not_connected);
  const Error error = client.call("m").error();
  EXPECT_EQ(error.code(), Errc::not_connected);
  EXPECT_STREQ(error.hint(), "connect the client before it calls");
  Server server;
  server.listen(where);
  client.connect(where);
  EXPECT_TRUE(client.connected());
  EXPECT_EQ(error_of([&] { client.connect(where); }).code(), Errc::misuse);
}

// It calls before it answers the version check, and refuses when the handler has called back.
TEST(LayerConnect, RefusalReachesAConnectWhoseHandlerCallsTheServer) {
  const auto address = fresh_address(Transport::pipe);
  Counter entered;
  std::atomic<bool> came{false};
  RawServer server(address, [&](RawSocket& socket) {
    const auto question = socket.read_message();
    socket.send_frame(call_payload("work", 7, {}, "0x7"));
    came = entered.wait_for(1) && socket.read_message(1s).value_or(Message()).name() == "back";
    if (question) socket.send_frame(reply_payload(*question, BlockWriter().add(false)));
  });
  std::promise<Errc> told;
  Client client;
  client.on("work", [&] {
    entered.add();
    told.set_value(client.call("back", forever).error().code());
  });
  auto connected = std::async(std::launch::async, [&] {
    return error_of([&] { client.connect(layered(address)); }).code();
  });
  if (connected.wait_for(kLimit) != std::future_status::ready) std::abort();  // it hangs
  EXPECT_EQ(connected.get(), Errc::refused_version);
  EXPECT_EQ(told.get_future().get(), Errc::not_connected);
  EXPECT_TRUE(came);
}

TEST(LayerConnect, CloseInAHandlerEndsAConnectThatIsUnderWay) {
  const auto address = fresh_address(Transport::pipe);
  Counter entered;
  RawServer server(address, [&](RawSocket& socket) {
    const auto question = socket.read_message();
    socket.send_frame(call_payload("work", 7, {}, "0x7"));
    entered.wait_for(1);
    if (question) socket.send_frame(reply_payload(*question, BlockWriter().add(true)));
    while (socket.read_message()) {
    }
  });
  Counter refused;
  Client client;
  client.on("work", [&] {
    client.close();
    entered.add();
    while (client.call("back", 10ms).error().code() == Errc::timed_out) {
    }
    refused.add();
  });
  auto connected = std::async(std::launch::async, [&] {
    try {
      client.connect(layered(address));
    } catch (const Error&) {
    }
  });
  if (connected.wait_for(kLimit) != std::future_status::ready) std::abort();  // it hangs
  EXPECT_FALSE(client.connected());
  EXPECT_TRUE(refused.wait_for(1));
}

TEST(LayerListen, TakenAddressIsReported) {
  const auto where = layered(fresh_address(Transport::tcp4));
  Server first;
  first.listen(where);
  Server second;
  const Error error = error_of([&] { second.listen(where); });
  EXPECT_EQ(error.code(), Errc::cannot_listen);
  EXPECT_EQ(error.address(), where.text());
  EXPECT_THAT(error.detail(), testing::HasSubstr("address already in use"));
  EXPECT_STREQ(error.hint(), "stop the other server of that address, or choose another");
  EXPECT_FALSE(second.listening());
}

TEST(LayerListen, AddressOfAnotherMachineIsReported) {
  Server server;
  // Reserved for documentation: no machine has this address.
  const Error error = error_of([&] { server.listen("tcp4:192.0.2.1:5000"); });
  EXPECT_EQ(error.code(), Errc::cannot_listen);
  EXPECT_STREQ(error.hint(), "use an address that this machine has");
}

TEST(LayerListen, NothingIsPrinted) {
  const auto where = layered(fresh_address(Transport::tcp4));
  std::cout.flush();  // the lines of the tests before
  testing::internal::CaptureStdout();
  {
    Server first;
    first.on("fail", [] { throw std::runtime_error("no"); });
    first.listen(where);
    Server second;
    EXPECT_EQ(error_of([&] { second.listen(where); }).code(), Errc::cannot_listen);
    Client client = connect(where);
    client.reconnecting();
    EXPECT_FALSE(client.call("fail"));
    EXPECT_FALSE(client.call("absent"));
    first.close();
    EXPECT_FALSE(client.call("fail"));
  }
  std::cout.flush();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST(LayerListen, FailedListenCanBeRetried) {
  Server first;
  const auto where = layered(fresh_address(Transport::tcp4));
  first.listen(where);
  Server second;
  second.on("two", [] { return 2; });
  EXPECT_EQ(error_of([&] { second.listen(where); }).code(), Errc::cannot_listen);
  first.close();
  second.listen(where);
  EXPECT_EQ(connect(where).call<int>("two").value(), 2);
  EXPECT_EQ(error_of([&] { second.listen(where); }).code(), Errc::misuse);
}

TEST(LayerListen, LinesGoToTheLogFunction) {
  std::mutex mutex;
  std::vector<std::string> lines;
  Server server;
  server.log([&](std::string_view line) {
    const std::lock_guard<std::mutex> lock(mutex);
    lines.emplace_back(line);
  });
  server.on("fail", [] { throw std::runtime_error("no"); });
  const auto where = fresh();
  server.listen(where);
  EXPECT_FALSE(connect(where).call("fail"));
  server.close();
  const std::lock_guard<std::mutex> lock(mutex);
  EXPECT_THAT(lines, testing::Contains("handler error: fail: no\n"));
  EXPECT_THAT(lines, testing::Contains(testing::HasSubstr("connected from")));
}

TEST(LayerListen, AnswersAfterTheEndOfTheServerTellNoLine) {
  Deferred<> later;
  Counter asked;
  Counter lines;
  const auto where = fresh();
  Client client;
  {
    Server server;
    server.log([&](std::string_view) { lines.add(); });
    server.on("later", [&] {
      asked.add();
      return later;
    });
    server.listen(where);
    client.connect(where);
    ASSERT_TRUE(client.post("later"));
    ASSERT_TRUE(asked.wait_for(1));
  }
  const int before = lines.value();
  later.fail(failure("no"));
  EXPECT_EQ(lines.value(), before);
}

TEST(LayerListen, AServerThatIsClosedMeanwhileDoesNotListen) {
  for (int i = 0; i < 50; ++i) {
    const auto where = fresh();
    Server server;
    std::thread closing([&] { server.close(); });
    try {
      server.listen(where);
    } catch (const Error& error) {
      EXPECT_EQ(error.code(), Errc::misuse);
    }
    closing.join();
    EXPECT_EQ(error_of([&] { (void)connect(where); }).code(), Errc::not_connected);
  }
}

TEST(LayerListen, AClientDoesNotStopAServerThatDoesNotAllowIt) {
  Server server;
  server.on("still", [] { return "here"; });
  const auto where = fresh();
  server.listen(where);
  Client client = connect(where);
  EXPECT_FALSE(client.call<bool>("s_c_close_server"));
  EXPECT_EQ(client.call<std::string>("still").value(), "here");
  EXPECT_TRUE(server.listening());
}

TEST(LayerListen, WaitEndsWhenAClientClosesTheServer) {
  Server server(Options{.clients_may_stop = true});
  const auto where = fresh();
  server.listen(where);
  Client client = connect(where);
  std::thread closer([&] { (void)client.call<bool>("s_c_close_server"); });
  server.wait();
  closer.join();
  EXPECT_TRUE(eventually([&] { return !server.listening(); }));
}

TEST(LayerListen, WaitingForAServerThatNeverListenedIsMisuse) {
  Server server;
  const Error error = error_of([&] { server.wait(); });
  EXPECT_EQ(error.code(), Errc::misuse);
  EXPECT_EQ(error.detail(), "this server does not listen");
}

TEST(LayerListen, HooksReportClients) {
  Counter came;
  Counter went;
  std::atomic<ClientId> id{0};
  Server server;
  server.on_connect([&](ClientId client) {
    id = client;
    came.add();
  });
  server.on_closed([&](ClientId client) {
    EXPECT_EQ(client, id);
    went.add();
  });
  const auto where = fresh();
  server.listen(where);
  {
    Client client = connect(where);
    EXPECT_TRUE(came.wait_for(1));
    EXPECT_THAT(server.clients(), testing::ElementsAre(id.load()));
    // A peer may call the name of a hook like a method: the hook does not run then.
    EXPECT_EQ(client.call("s_c_closed").error().code(), Errc::no_such_method);
    EXPECT_EQ(went.value(), 0);
  }
  EXPECT_TRUE(went.wait_for(1));
  EXPECT_TRUE(server.clients().empty());
}

}  // namespace
}  // namespace tolk::test
