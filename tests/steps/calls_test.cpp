// A call is held at one of its steps while its session ends.
#include <deque>

#include "tests/steps/fixture.h"

namespace tolk::test {
namespace {

class HeldCall : public StepTest {
 protected:
  // A call without a limit.
  CallMeanwhile call() const { return {pair.client.get(), "echo", 1, 0}; }
};
TOLK_OVER_TRANSPORTS(HeldCall);

TEST_P(HeldCall, ReturnsNullWhenItsServerWentAfterItLooked) {
  Hold hold("wait.listed");
  CallMeanwhile caller = call();
  ASSERT_TRUE(hold.reached());
  DestroyServer(pair.server.release());
  ASSERT_TRUE(goes_offline());
  hold.release();
  EXPECT_EQ(caller.result(), nullptr);
  EXPECT_TRUE(bystanders.serves());
}

// The wake-up handle is closed and its loop gone: nobody may touch either.
TEST_P(HeldCall, ReturnsNullWhenItsLoopEndedBeforeItHandedItsFrameOver) {
  Hold hold("queue.before_post");
  CallMeanwhile caller = call();
  ASSERT_TRUE(hold.reached());
  pair.client->close();
  ASSERT_FALSE(pair.client->isok());
  hold.release();
  EXPECT_EQ(caller.result(), nullptr);
  EXPECT_TRUE(bystanders.serves());
}

TEST_P(HeldCall, ReturnsNullWhenItsFrameStillStandsInLineAtTheEnd) {
  Hold loop("client.before.closed");
  Meanwhile closing([this] { pair.client->close(); });
  ASSERT_TRUE(loop.reached());
  Hold in_line("queue.posted");
  CallMeanwhile caller = call();
  ASSERT_TRUE(in_line.reached());  // handed over, and nobody will look at it
  loop.release();
  in_line.release();
  EXPECT_EQ(caller.result(), nullptr);
  EXPECT_TRUE(closing.is_done());
  EXPECT_TRUE(bystanders.serves());
}

// The timeout does not cover encoding: the frame is there when the call is stamped and listed.
TEST_P(HeldCall, IsListedWhenItsArgumentsAreEncoded) {
  TolkParams arguments;
  arguments.AddString("encoded");
  Hold hold("wait.listed");
  auto caller = std::async(std::launch::async, [&] {
    return string_at(pair.client->SendMsgFast("echo", &arguments, 1, 0), 0);
  });
  ASSERT_TRUE(hold.reached());
  arguments.Clear();
  arguments.AddString("too late");
  hold.release();
  EXPECT_EQ(caller.get(), "encoded");
}

// All waiting calls are woken twice when a server is lost: this one has still to leave the list.
TEST_P(HeldCall, MayBeWokenTwiceBeforeItLeavesTheList) {
  Hold hold("call.woken");
  CallMeanwhile caller = call();
  ASSERT_TRUE(hold.reached());
  DestroyServer(pair.server.release());
  ASSERT_TRUE(goes_offline());
  pair.client->close();
  EXPECT_TRUE(bystanders.serves());  // with sweeps over the record meanwhile
  hold.release();
  EXPECT_TRUE(caller.is_done());
  EXPECT_TRUE(bystanders.serves());
}

TEST_P(HeldCall, ReturnsNullAfterItsClientWasDestroyed) {
  Hold hold("call.woken");
  CallMeanwhile caller = call();
  ASSERT_TRUE(hold.reached());
  DestroyClient(pair.client.release());
  hold.release();
  EXPECT_EQ(caller.result(), nullptr);
}

TEST_P(HeldCall, OfManyNoneOutlivesItsClient) {
  constexpr int kCallers = 8;
  const Gate gate;
  const OpenAtEnd opened(gate);
  pair.server->method("stay", blocking(gate));
  std::deque<CallMeanwhile> callers;
  for (int id = 1; id <= kCallers; ++id) callers.emplace_back(pair.client.get(), "stay", id, 0);
  ASSERT_TRUE(gate.wait_entered());
  DestroyClient(pair.client.release());
  for (CallMeanwhile& caller : callers) EXPECT_EQ(caller.result(), nullptr);
}

// Its record would be gone while the thread that wakes it still uses it.
TEST_P(HeldCall, IsNotOverBeforeItsWakerIsDone) {
  Hold hold("wait.woken");
  Meanwhile calling([this] { pair.client->SendMsgFast("echo", nullptr, 1, 0); });
  ASSERT_TRUE(hold.reached());
  EXPECT_FALSE(calling.is_done(kQuiet));
  hold.release();
  EXPECT_TRUE(calling.is_done());
}

TEST_P(HeldCall, ComesToAWorkerThatHasStayedAwakeWhenCallsAreQuick) {
  Hold hold("worker.stays_awake");
  const Stopwatch since;
  while (!hold.reached(Milliseconds(0)) && since.elapsed() < kLimit) {
    ASSERT_NE(pair.client->SendMsgFast("echo", nullptr, 1, 0), nullptr);
  }
  EXPECT_TRUE(hold.reached(Milliseconds(0)));
}

class HeldLoop : public StepTest {};
TOLK_OVER_TRANSPORTS(HeldLoop);

TEST_P(HeldLoop, HoldsUpNoOtherSession) {
  Hold hold("queue.before_task");
  CallMeanwhile caller(pair.client.get(), "echo", 1, 0);
  ASSERT_TRUE(hold.reached());
  EXPECT_TRUE(bystanders.serves());
  EXPECT_FALSE(caller.is_done(Milliseconds(0)));
  hold.release();
  EXPECT_NE(caller.result(), nullptr);
}

class HeldPost : public StepTest {};
TOLK_OVER_TRANSPORTS(HeldPost);

TEST_P(HeldPost, ReturnsWhenItsLoopEndedBeforeItHandedItsFrameOver) {
  Hold hold("queue.before_post");
  Meanwhile posting([this] { pair.client->PostMsg("echo", nullptr, 1); });
  ASSERT_TRUE(hold.reached());
  pair.client->close();
  hold.release();
  EXPECT_TRUE(posting.is_done());
  EXPECT_TRUE(bystanders.serves());
}

// Who has handed its frame over waits for that frame alone: nothing else would wake it.
TEST_P(HeldPost, ReturnsWhenItsFrameStillStandsInLineAtTheEnd) {
  Hold loop("client.before.closed");
  Meanwhile closing([this] { pair.client->close(); });
  ASSERT_TRUE(loop.reached());
  Hold in_line("queue.posted");
  Meanwhile posting([this] { pair.client->PostMsg("echo", nullptr, 1); });
  ASSERT_TRUE(in_line.reached());
  loop.release();
  in_line.release();
  EXPECT_TRUE(posting.is_done());
  EXPECT_TRUE(closing.is_done());
}

class HeldServerCall : public StepTest {
 protected:
  // A call with a timeout. The bystanders' server looks after it when its own has stopped.
  std::future<TolkParams*> call() {
    return std::async(std::launch::async,
                      [server = pair.server.get(), id = pair.client_id->load()] {
                        return server->SendMsg(id, "echo", nullptr, 1, 200);
                      });
  }
  void SetUp() override {
    StepTest::SetUp();
    ASSERT_TRUE(bystanders.serves());
  }
};
TOLK_OVER_TRANSPORTS(HeldServerCall);

TEST_P(HeldServerCall, ReturnsNullWhenItsServerStoppedBeforeItHandedItsFrameOver) {
  Hold hold("queue.before_post");
  auto caller = call();
  ASSERT_TRUE(hold.reached());
  pair.server->close();
  hold.release();
  EXPECT_EQ(caller.get(), nullptr);
  EXPECT_TRUE(bystanders.serves());
}

TEST_P(HeldServerCall, ReturnsNullAfterItsServerWasDestroyed) {
  Hold hold("call.woken");
  auto caller = call();
  ASSERT_TRUE(hold.reached());
  DestroyServer(pair.server.release());
  hold.release();
  EXPECT_EQ(caller.get(), nullptr);
  EXPECT_TRUE(bystanders.serves());
}

class HeldLargeCall : public StepTest {};
TOLK_OVER_TRANSPORTS(HeldLargeCall);

// "Is it connected?" and "wait" are one step: a call that was about to wait when the server went
// does not begin to.
TEST_P(HeldLargeCall, ReturnsNullWhenItsServerWentBeforeItWaited) {
  Hold hold("large_call.before_register");
  Meanwhile calling([this] { EXPECT_EQ(pair.client->SendMsgEx("echo", nullptr, 1, 0), nullptr); });
  ASSERT_TRUE(hold.reached());
  DestroyServer(pair.server.release());
  ASSERT_TRUE(goes_offline());
  hold.release();
  EXPECT_TRUE(calling.is_done());
  EXPECT_TRUE(bystanders.serves());
}

TEST_P(HeldLargeCall, ReturnsWhenItsServerWentAfterItWaited) {
  Hold hold("large_call.registered");
  Meanwhile calling([this] { pair.client->SendMsgEx("echo", nullptr, 1, 0); });
  ASSERT_TRUE(hold.reached());
  DestroyServer(pair.server.release());
  ASSERT_TRUE(goes_offline());
  hold.release();
  EXPECT_TRUE(calling.is_done());
  EXPECT_TRUE(bystanders.serves());
}

}  // namespace
}  // namespace tolk::test
