// Connecting and listening, and the errors when they fail.
#include <atomic>
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

TEST(LayerListen, TakenAddressIsReported) {
  const auto where = layered(fresh_address(Transport::tcp4));
  Server first;
  first.listen(where);
  Server second;
  const Error error = error_of([&] { second.listen(where); });
  EXPECT_EQ(error.code(), Errc::cannot_listen);
  EXPECT_EQ(error.address(), where.text());
  EXPECT_THAT(error.detail(), testing::HasSubstr("EADDRINUSE"));
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

TEST(LayerListen, QuietServerReportsTheReasonAndPrintsNothing) {
  const auto where = layered(fresh_address(Transport::tcp4));
  Server first(Options{.quiet = true});
  first.listen(where);
  std::atomic<int> lines{0};
  std::cout.flush();  // the lines of the tests before
  testing::internal::CaptureStdout();
  {
    Server second(Options{.quiet = true});
    second.log([&](std::string_view) { ++lines; });
    const Error error = error_of([&] { second.listen(where); });
    EXPECT_THAT(error.detail(), testing::HasSubstr("EADDRINUSE"));
  }
  std::cout.flush();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(lines, 0);
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
  EXPECT_THAT(lines, testing::Contains(testing::StartsWith("Accept success")));
}

TEST(LayerListen, WaitEndsWhenAClientClosesTheServer) {
  Server server;
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
  Server server;
  Counter came;
  Counter went;
  std::atomic<int> id{0};
  server.on_connect([&](int client) {
    id = client;
    came.add();
  });
  server.on_closed([&](int client) {
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
    EXPECT_TRUE(client.call("s_c_closed"));
    EXPECT_EQ(went.value(), 0);
  }
  EXPECT_TRUE(went.wait_for(1));
  EXPECT_TRUE(server.clients().empty());
}

}  // namespace
}  // namespace tolk::test
