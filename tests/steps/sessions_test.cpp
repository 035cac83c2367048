// A session is held at one of its steps: while it begins, and while it winds down.
#include "tests/e2e/support/process_state.h"
#include "tests/steps/fixture.h"

namespace tolk::test {
namespace {

class HeldConnect : public OverTransports {
 protected:
  void SetUp() override {
    pair.start();
    bystanders.connect();
  }
  // Waits in the destructor.
  std::future<bool> connect() {
    return std::async(std::launch::async,
                      [this] { return connect_client(pair.client.get(), pair.address); });
  }

  Pair bystanders{GetParam()};
  Pair pair{GetParam()};
};
TOLK_OVER_TRANSPORTS(HeldConnect);

TEST_P(HeldConnect, IsNotSeenAsConnectedBeforeCallsCanBeMade) {
  Hold hold("client.before.live");
  auto connected = connect();
  ASSERT_TRUE(hold.reached());
  EXPECT_FALSE(pair.client->isok());
  EXPECT_EQ(pair.client->SendMsgFast("echo", nullptr, 1, 0), nullptr);
  hold.release();
  EXPECT_TRUE(connected.get());
}

// A third thread may see the client as connected before the connecting one has returned.
TEST_P(HeldConnect, AnswersTheCallOfAThreadThatSawItConnected) {
  Hold hold("client.after.live");
  auto connected = connect();
  ASSERT_TRUE(hold.reached());
  ASSERT_TRUE(pair.client->isok());
  CallMeanwhile early(pair.client.get(), "echo", 1, 0);
  hold.release();
  EXPECT_NE(early.result(), nullptr);
  EXPECT_TRUE(connected.get());
}

TEST_P(HeldConnect, FailsWhenItsClientIsClosedBeforeTheVersionCheck) {
  Hold hold("wait.listed");
  auto connected = connect();
  ASSERT_TRUE(hold.reached());
  pair.client->close();
  hold.release();
  EXPECT_FALSE(connected.get());
  EXPECT_TRUE(bystanders.serves());
}

TEST_P(HeldConnect, FailsWhenItsClientIsClosedDuringTheVersionCheck) {
  Hold hold("worker.before_handler");  // which would answer it
  auto connected = connect();
  ASSERT_TRUE(hold.reached());
  pair.client->close();
  EXPECT_FALSE(connected.get());
  hold.release();
  EXPECT_TRUE(bystanders.serves());
}

class HeldEnd : public StepTest {};
TOLK_OVER_TRANSPORTS(HeldEnd);

// The old session still has to release what belongs to it: the new one must not be among it.
TEST_P(HeldEnd, ANewConnectWaitsUntilTheOldSessionHasEnded) {
  Hold hold("client.before.ended");
  DestroyServer(pair.server.release());
  ASSERT_TRUE(goes_offline());
  ASSERT_TRUE(hold.reached());
  pair.server = make_server();
  ASSERT_TRUE(start_server(pair.server.get(), pair.address));
  auto connected = std::async(std::launch::async,
                              [this] { return connect_client(pair.client.get(), pair.address); });
  EXPECT_EQ(connected.wait_for(kQuiet), std::future_status::timeout);
  hold.release();
  EXPECT_TRUE(connected.get());
  EXPECT_TRUE(pair.client->isok());
}

TEST_P(HeldEnd, TwoThreadsMayCloseAtOnce) {
  Hold hold("client.before.ended");
  Meanwhile one([this] { pair.client->close(); });
  ASSERT_TRUE(hold.reached());
  Meanwhile other([this] { pair.client->close(); });
  hold.release();
  EXPECT_TRUE(one.is_done());
  EXPECT_TRUE(other.is_done());
  EXPECT_TRUE(bystanders.serves());
}

TEST_P(HeldEnd, TheObjectMayGoWhileItsLoopWindsDown) {
  Hold hold("client.after.lost");
  DestroyServer(pair.server.release());
  ASSERT_TRUE(hold.reached());
  Meanwhile destroying([client = pair.client.release()] { DestroyClient(client); });
  EXPECT_FALSE(destroying.is_done(kQuiet));
  hold.release();
  EXPECT_TRUE(destroying.is_done());
  EXPECT_TRUE(bystanders.serves());
}

class HeldStop : public OverTransports {};
TOLK_OVER_TRANSPORTS(HeldStop);

// One thread closes and has not got to the loop yet; another one destroys.
TEST_P(HeldStop, EndsThoughItsServerIsDestroyedMeanwhile) {
  IServer* const server = CreateServer();
  ASSERT_TRUE(start_server(server, address));
  Hold hold("server.after.close_asked");
  Meanwhile closing([&] { server->close(); });
  ASSERT_TRUE(hold.reached());
  DestroyServer(server);
  hold.release();
  EXPECT_TRUE(closing.is_done());
  EXPECT_TRUE(eventually([] { return open_loops() == 0; }));
}

class HeldStart : public OverTransports {};
TOLK_OVER_TRANSPORTS(HeldStart);

// Nobody could stop that server any more.
TEST_P(HeldStart, LeavesNoServerBehindWhenItsObjectIsDestroyed) {
  for (const char* step : {"server.before.live", "server.after.live"}) {
    IServer* const server = CreateServer();
    Hold hold(step);
    Meanwhile starting([&] { start_server(server, address); });
    ASSERT_TRUE(hold.reached());
    DestroyServer(server);
    hold.release();
    EXPECT_TRUE(starting.is_done());
    EXPECT_TRUE(eventually([] { return open_loops() == 0; })) << step;
  }
}

TEST(HeldCloseAsync, ServerCannotStartAgainOnceItIsSeenStopped) {
  const ServerPtr server = make_server();
  ASSERT_TRUE(start_server(server.get(), fresh_address(Transport::pipe)));
  Hold hold("server.after.closed");
  Meanwhile closing([&] { server->closeasync(); });
  ASSERT_TRUE(hold.reached());
  EXPECT_FALSE(server->isok());
  EXPECT_FALSE(start_server(server.get(), fresh_address(Transport::pipe)));
}

}  // namespace
}  // namespace tolk::test
