#include "transport/call_road.h"

#include <gtest/gtest.h>
#include <tests/transport/event.h>
#include <tests/transport/test_session.h>
#include <tolk/TolkParams.h>
#include <tolk/TolkValue.h>

#include <atomic>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/thread.h"
#include "transport/envelope.h"

namespace {

using tolk::Call;
using tolk::Envelope;
using tolk::Frame;
using tolk::OldResult;
using tolk::WaitList;
using tolk::test::Event;
using Milestone = tolk::LoopSession::Milestone;

// A road whose peer is the test.
class Road final : public tolk::test::TestSession<tolk::FrameRoad> {
 public:
  bool deliver(int peer, Frame frame) override {
    check_loop_thread();
    return peer_does(peer, std::string(frame.bytes().substr(Frame::kPrefixBytes)));
  }

  std::function<bool(int peer, const std::string& payload)> peer_does =
      [](int, const std::string&) { return true; };
};

class CallRoad : public testing::Test {
 protected:
  CallRoad() {
    EXPECT_TRUE(road->start());
    road->wait_for(Milestone::decided);
  }
  ~CallRoad() override {
    road->stop();
    road->wait_for(Milestone::ended);
    EXPECT_EQ(waits.size(), 0u) << "no call leaves its record behind";
  }

  // The peer that answers every call with its own arguments.
  void echo() {
    road->peer_does = [this](int, const std::string& payload) {
      answer(payload, payload);
      return true;
    };
  }
  void answer(const std::string& call, const std::string& reply) {
    const Envelope envelope = Envelope::scan(call);
    results.store(envelope.call_id.value(), reply);
    waits.wake(tolk::parse_token(envelope.token.value()).value());
  }

  static Call call_of(int call_id) {
    Call call;
    call.name = "m";
    call.call_id = call_id;
    return call;
  }
  void call(const Call& what, OldResult old = OldResult::drop) {
    tolk::call_and_wait(*road, waits, results, old, what, 0);
  }

  const std::shared_ptr<Road> road = std::make_shared<Road>();
  WaitList waits{WaitList::Zero::no_limit};
  tolk::Mutex lock;
  tolk::ResultTable results{lock};
};

std::string encoded_int(int number) {
  TolkParams block;
  block.AddInt(number);
  return *block.GetParamas();
}

TEST_F(CallRoad, CallReturnsOnceItsReplyHasWokenIt) {
  echo();
  Call what = call_of(5);
  what.arguments = "data";
  call(what);
  const Envelope seen = Envelope::scan(*results.find(5)->GetParamas());
  EXPECT_EQ(seen.name, "m");
  EXPECT_EQ(seen.call_id, 5);
  EXPECT_EQ(seen.arguments, "data");
  EXPECT_TRUE(seen.token.has_value());
}

TEST_F(CallRoad, CallNamesItsPeer) {
  int named = 0;
  road->peer_does = [&](int peer, const std::string& payload) {
    named = peer;
    answer(payload, "");
    return true;
  };
  Call what = call_of(1);
  what.peer = -77;
  call(what);
  EXPECT_EQ(named, -77);
}

TEST_F(CallRoad, RecordIsListedBeforeTheFrameGoesOut) {
  std::size_t listed = 0;
  road->peer_does = [&](int, const std::string& payload) {
    listed = waits.size();
    answer(payload, "");
    return true;
  };
  call(call_of(1));
  EXPECT_EQ(listed, 1u);
}

TEST_F(CallRoad, CallWaitsWhileNothingWakesIt) {
  Event delivered;
  Event returned;
  road->peer_does = [&](int, const std::string&) {
    delivered.set();
    return true;
  };
  std::thread caller([&] {
    call(call_of(1));
    returned.set();
  });
  ASSERT_TRUE(delivered.wait());
  EXPECT_FALSE(returned.happened());
  EXPECT_EQ(waits.size(), 1u);
  waits.wake_all();
  EXPECT_TRUE(returned.wait());
  caller.join();
}

TEST_F(CallRoad, EndOfTheSessionEndsACallThatStandsInLine) {
  Event blocked;
  Event may_go_on;
  Event returned;
  road->post_function([&] {
    blocked.set();
    may_go_on.wait();
    road->stop_here();
  });
  ASSERT_TRUE(blocked.wait());
  std::thread caller([&] {
    call(call_of(1));
    returned.set();
  });
  while (waits.size() == 0) std::this_thread::yield();
  may_go_on.set();
  EXPECT_TRUE(returned.wait()) << "without any wake-all";
  caller.join();
  EXPECT_EQ(results.find(1), nullptr);
}

TEST_F(CallRoad, CallOnASessionThatIsOverReturnsAtOnce) {
  road->stop();
  road->wait_for(Milestone::ended);
  call(call_of(1));
  EXPECT_EQ(results.find(1), nullptr);
}

TEST_F(CallRoad, CallToAPeerThatIsNotThereReturnsAtOnce) {
  road->peer_does = [](int, const std::string&) { return false; };
  call(call_of(1));
  EXPECT_EQ(results.find(1), nullptr);
}

TEST_F(CallRoad, DeliveryThatThrowsEndsTheCall) {
  road->peer_does = [](int, const std::string&) -> bool { throw std::bad_alloc(); };
  call(call_of(1));
  EXPECT_EQ(results.find(1), nullptr);
}

TEST_F(CallRoad, OldResultIsDroppedBeforeTheCall) {
  results.store(1, encoded_int(1));
  road->peer_does = [](int, const std::string&) { return false; };
  call(call_of(1), OldResult::drop);
  EXPECT_EQ(results.find(1), nullptr);
}

TEST_F(CallRoad, OldResultStaysWhereItIsKept) {
  results.store(1, encoded_int(1));
  TolkParams* const block = results.find(1);
  road->peer_does = [](int, const std::string&) { return false; };
  call(call_of(1), OldResult::keep);
  EXPECT_EQ(results.find(1), block);
  EXPECT_EQ(block->GetValue(0)->GetInt(), 1);
}

TEST_F(CallRoad, OtherResultsStayWhenOneIsDropped) {
  results.store(2, encoded_int(2));
  echo();
  call(call_of(1));
  EXPECT_NE(results.find(2), nullptr);
}

TEST_F(CallRoad, OldResultMayBeTheArguments) {
  results.store(1, encoded_int(42));
  std::string arguments;
  road->peer_does = [&](int, const std::string& payload) {
    arguments = Envelope::scan(payload).arguments.value();
    answer(payload, payload);
    return true;
  };
  Call what = call_of(1);
  what.arguments = tolk::encoded(results.find(1));
  call(what);
  EXPECT_EQ(arguments, encoded_int(42));
}

TEST_F(CallRoad, CallOnTheSessionsOwnThreadWritesAndDoesNotWait) {
  int delivered = 0;
  road->peer_does = [&](int, const std::string&) {
    ++delivered;
    return true;
  };
  Event done;
  road->post_function([&] {
    call(call_of(1));
    tolk::post_and_go(*road, call_of(1));
    done.set();
  });
  ASSERT_TRUE(done.wait());
  EXPECT_EQ(delivered, 2);
}

TEST_F(CallRoad, CallOnTheOwnThreadOfAStoppingSessionWritesNothing) {
  bool delivered = false;
  road->peer_does = [&](int, const std::string&) { return delivered = true; };
  Event done;
  road->post_function([&] {
    road->stop_here();
    call(call_of(1));
    tolk::post_and_go(*road, call_of(1));
    done.set();
  });
  ASSERT_TRUE(done.wait());
  road->wait_for(Milestone::ended);
  EXPECT_FALSE(delivered);
}

TEST_F(CallRoad, PostedCallReturnsOnceItsFrameIsDelivered) {
  std::string payload;
  road->peer_does = [&](int, const std::string& seen) {
    payload = seen;
    return true;
  };
  Call what = call_of(9);
  what.arguments = "data";
  tolk::post_and_go(*road, what);
  const Envelope envelope = Envelope::scan(payload);
  EXPECT_EQ(envelope.name, "m");
  EXPECT_EQ(envelope.call_id, 9);
  EXPECT_EQ(envelope.arguments, "data");
  EXPECT_EQ(envelope.token, std::nullopt);
}

TEST_F(CallRoad, PostedCallReturnsWhenItsFrameCannotGoOut) {
  road->peer_does = [](int, const std::string&) { return false; };
  tolk::post_and_go(*road, call_of(1));
  road->peer_does = [](int, const std::string&) -> bool { throw std::bad_alloc(); };
  tolk::post_and_go(*road, call_of(1));
  road->stop();
  road->wait_for(Milestone::ended);
  tolk::post_and_go(*road, call_of(1));
  EXPECT_EQ(results.size(), 0u);
}

TEST_F(CallRoad, PostedCallDropsNoResult) {
  results.store(1, encoded_int(1));
  tolk::post_and_go(*road, call_of(1));
  EXPECT_NE(results.find(1), nullptr);
}

TEST_F(CallRoad, LateReplyOfAnEarlierCallWakesNoLaterOne) {
  std::string first;
  road->peer_does = [&](int, const std::string& payload) {
    if (Envelope::scan(payload).token) first = payload;
    return true;
  };
  std::thread early([&] { call(call_of(1)); });
  while (waits.size() == 0) std::this_thread::yield();
  // The first call is on the wire once a posted function runs behind it.
  tolk::post_and_go(*road, call_of(2));
  waits.wake_all();
  early.join();

  Event second_sent;
  Event returned;
  std::string second;
  road->peer_does = [&](int, const std::string& payload) {
    second = payload;
    second_sent.set();
    return true;
  };
  std::thread late([&] {
    call(call_of(1));
    returned.set();
  });
  ASSERT_TRUE(second_sent.wait());
  Event late_reply_taken;
  road->post_function([&] {
    results.store(1, encoded_int(1));
    if (const auto token = Envelope::scan(first).token) waits.wake(*tolk::parse_token(*token));
    late_reply_taken.set();
  });
  ASSERT_TRUE(late_reply_taken.wait());
  EXPECT_EQ(waits.size(), 1u);
  EXPECT_FALSE(returned.happened());
  answer(second, encoded_int(2));
  EXPECT_TRUE(returned.wait());
  late.join();
  EXPECT_EQ(results.find(1)->GetValue(0)->GetInt(), 2);
}

TEST_F(CallRoad, ManyCallersAllReturnWhenTheSessionEndsUnderThem) {
  std::atomic<int> calls{0};
  road->peer_does = [&](int, const std::string& payload) {
    ++calls;
    if (Envelope::scan(payload).token) answer(payload, payload);
    return true;
  };
  std::vector<std::thread> callers;
  for (int t = 1; t <= 4; ++t) {
    callers.emplace_back([this, t] {
      for (int i = 0; i < 300; ++i) {
        call(call_of(t));
        tolk::post_and_go(*road, call_of(t));
      }
    });
  }
  while (calls < 200) std::this_thread::yield();
  road->stop();
  for (std::thread& caller : callers) caller.join();
  EXPECT_TRUE(road->wait_for(Milestone::ended, tolk::test::kPatience));
}

TEST(CallIds, AskedIdIsUsedAndZeroMeansTheCallersOwn) {
  EXPECT_EQ(tolk::call_id_or_own(7), 7);
  EXPECT_EQ(tolk::call_id_or_own(-7), -7);
  EXPECT_EQ(tolk::call_id_or_own(0), tolk::platform::own_call_id());
  EXPECT_NE(tolk::call_id_or_own(0), 0);
}

TEST(CallIds, NullBlockIsNoArguments) {
  TolkParams empty;
  EXPECT_EQ(tolk::encoded(nullptr), std::nullopt);
  EXPECT_EQ(tolk::encoded(&empty), "");
}

}  // namespace
