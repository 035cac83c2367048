#include "sessions/outgoing_call.h"

#include <gtest/gtest.h>
#include <tests/sessions/test_session.h>
#include <tests/transport/event.h>
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

using tolk::Envelope;
using tolk::OldResult;
using tolk::OutgoingCall;
using tolk::WaitList;
using tolk::test::Event;
using tolk::test::TestSession;

class OutgoingCalls : public testing::Test {
 protected:
  OutgoingCalls() {
    EXPECT_TRUE(session->start_thread());
    session->wait_until_decided();
  }
  ~OutgoingCalls() override {
    session->stop();
    session->wait_until_ended();
    EXPECT_EQ(waits.size(), 0u) << "no call leaves its record behind";
  }

  // The peer that answers every call with its own arguments.
  void echo() {
    session->peer_does = [this](int, const std::string& payload) {
      answer(payload, payload);
      return true;
    };
  }
  void answer(const std::string& call, const std::string& reply) {
    const Envelope envelope = Envelope::scan(call);
    results.store(envelope.call_id.value(), reply);
    waits.wake(tolk::parse_token(envelope.token.value()).value());
  }

  static OutgoingCall call_of(int call_id) { return {0, "m", nullptr, call_id}; }
  void call(const OutgoingCall& what, OldResult old = OldResult::drop) {
    tolk::call_and_wait(*session, waits, results, old, what, 0);
  }

  const std::shared_ptr<TestSession> session = std::make_shared<TestSession>();
  WaitList waits{WaitList::Zero::no_limit};
  tolk::Mutex lock;
  tolk::ResultTable results{lock};
};

std::string encoded_int(int number) {
  TolkParams block;
  block.AddInt(number);
  return *block.GetParamas();
}

TEST_F(OutgoingCalls, CallReturnsOnceItsReplyHasWokenIt) {
  echo();
  OutgoingCall what = call_of(5);
  what.arguments = "data";
  call(what);
  const Envelope seen = Envelope::scan(*results.find(5)->GetParamas());
  EXPECT_EQ(seen.name, "m");
  EXPECT_EQ(seen.call_id, 5);
  EXPECT_EQ(seen.arguments, "data");
  EXPECT_TRUE(seen.token.has_value());
}

TEST_F(OutgoingCalls, CallNamesItsPeer) {
  int named = 0;
  session->peer_does = [&](int peer, const std::string& payload) {
    named = peer;
    answer(payload, "");
    return true;
  };
  OutgoingCall what = call_of(1);
  what.peer = -77;
  call(what);
  EXPECT_EQ(named, -77);
}

TEST_F(OutgoingCalls, RecordIsListedBeforeTheFrameGoesOut) {
  std::size_t listed = 0;
  session->peer_does = [&](int, const std::string& payload) {
    listed = waits.size();
    answer(payload, "");
    return true;
  };
  call(call_of(1));
  EXPECT_EQ(listed, 1u);
}

TEST_F(OutgoingCalls, CallWaitsWhileNothingWakesIt) {
  Event delivered;
  Event returned;
  session->peer_does = [&](int, const std::string&) {
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

TEST_F(OutgoingCalls, EndOfTheSessionEndsACallThatStandsInLine) {
  Event blocked;
  Event may_go_on;
  Event returned;
  session->post_function([&] {
    blocked.set();
    may_go_on.wait();
    tolk::enter_loop();
    session->stop_here();
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

TEST_F(OutgoingCalls, CallOnASessionThatIsOverReturnsAtOnce) {
  session->stop();
  session->wait_until_ended();
  call(call_of(1));
  EXPECT_EQ(results.find(1), nullptr);
}

TEST_F(OutgoingCalls, CallToAPeerThatIsNotThereReturnsAtOnce) {
  session->peer_does = [](int, const std::string&) { return false; };
  call(call_of(1));
  EXPECT_EQ(results.find(1), nullptr);
}

TEST_F(OutgoingCalls, DeliveryThatThrowsEndsTheCall) {
  session->peer_does = [](int, const std::string&) -> bool { throw std::bad_alloc(); };
  call(call_of(1));
  EXPECT_EQ(results.find(1), nullptr);
}

TEST_F(OutgoingCalls, OldResultIsDroppedBeforeTheCall) {
  results.store(1, encoded_int(1));
  session->peer_does = [](int, const std::string&) { return false; };
  call(call_of(1), OldResult::drop);
  EXPECT_EQ(results.find(1), nullptr);
}

TEST_F(OutgoingCalls, OldResultStaysWhereItIsKept) {
  results.store(1, encoded_int(1));
  TolkParams* const block = results.find(1);
  session->peer_does = [](int, const std::string&) { return false; };
  call(call_of(1), OldResult::keep);
  EXPECT_EQ(results.find(1), block);
  EXPECT_EQ(block->GetValue(0)->GetInt(), 1);
}

TEST_F(OutgoingCalls, OtherResultsStayWhenOneIsDropped) {
  results.store(2, encoded_int(2));
  echo();
  call(call_of(1));
  EXPECT_NE(results.find(2), nullptr);
}

TEST_F(OutgoingCalls, OldResultMayBeTheArguments) {
  results.store(1, encoded_int(42));
  std::string arguments;
  session->peer_does = [&](int, const std::string& payload) {
    arguments = Envelope::scan(payload).arguments.value();
    answer(payload, payload);
    return true;
  };
  OutgoingCall what = call_of(1);
  what.arguments = *results.find(1)->GetParamas();
  call(what);
  EXPECT_EQ(arguments, encoded_int(42));
}

TEST_F(OutgoingCalls, CallOnTheSessionsOwnThreadWritesAndDoesNotWait) {
  int delivered = 0;
  session->peer_does = [&](int, const std::string&) {
    ++delivered;
    return true;
  };
  Event done;
  session->post_function([&] {
    call(call_of(1));
    tolk::post_call(*session, call_of(1));
    done.set();
  });
  ASSERT_TRUE(done.wait());
  EXPECT_EQ(delivered, 2);
}

TEST_F(OutgoingCalls, CallOnTheOwnThreadOfAStoppingSessionWritesNothing) {
  bool delivered = false;
  session->peer_does = [&](int, const std::string&) { return delivered = true; };
  Event done;
  session->post_function([&] {
    tolk::enter_loop();
    session->stop_here();
    call(call_of(1));
    tolk::post_call(*session, call_of(1));
    done.set();
  });
  ASSERT_TRUE(done.wait());
  session->wait_until_ended();
  EXPECT_FALSE(delivered);
}

TEST_F(OutgoingCalls, PostedCallReturnsOnceItsFrameIsDelivered) {
  std::string payload;
  session->peer_does = [&](int, const std::string& seen) {
    payload = seen;
    return true;
  };
  OutgoingCall what = call_of(9);
  what.arguments = "data";
  tolk::post_call(*session, what);
  const Envelope envelope = Envelope::scan(payload);
  EXPECT_EQ(envelope.name, "m");
  EXPECT_EQ(envelope.call_id, 9);
  EXPECT_EQ(envelope.arguments, "data");
  EXPECT_EQ(envelope.token, std::nullopt);
}

TEST_F(OutgoingCalls, PostedCallReturnsWhenItsFrameCannotGoOut) {
  session->peer_does = [](int, const std::string&) { return false; };
  tolk::post_call(*session, call_of(1));
  session->peer_does = [](int, const std::string&) -> bool { throw std::bad_alloc(); };
  tolk::post_call(*session, call_of(1));
  session->stop();
  session->wait_until_ended();
  tolk::post_call(*session, call_of(1));
  EXPECT_EQ(results.size(), 0u);
}

TEST_F(OutgoingCalls, PostedCallDropsNoResult) {
  results.store(1, encoded_int(1));
  tolk::post_call(*session, call_of(1));
  EXPECT_NE(results.find(1), nullptr);
}

TEST_F(OutgoingCalls, LateReplyOfAnEarlierCallWakesNoLaterOne) {
  std::string first;
  session->peer_does = [&](int, const std::string& payload) {
    if (Envelope::scan(payload).token) first = payload;
    return true;
  };
  std::thread early([&] { call(call_of(1)); });
  while (waits.size() == 0) std::this_thread::yield();
  // The first call is on the wire once a posted function runs behind it.
  tolk::post_call(*session, call_of(2));
  waits.wake_all();
  early.join();

  Event second_sent;
  Event returned;
  std::string second;
  session->peer_does = [&](int, const std::string& payload) {
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
  session->post_function([&] {
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

TEST_F(OutgoingCalls, ManyCallersAllReturnWhenTheSessionEndsUnderThem) {
  std::atomic<int> calls{0};
  session->peer_does = [&](int, const std::string& payload) {
    ++calls;
    if (Envelope::scan(payload).token) answer(payload, payload);
    return true;
  };
  std::vector<std::thread> callers;
  for (int t = 1; t <= 4; ++t) {
    callers.emplace_back([this, t] {
      for (int i = 0; i < 300; ++i) {
        call(call_of(t));
        tolk::post_call(*session, call_of(t));
      }
    });
  }
  while (calls < 200) std::this_thread::yield();
  session->stop();
  for (std::thread& caller : callers) caller.join();
  EXPECT_TRUE(session->wait_until_ended(tolk::test::kPatience));
}

TEST(CallIds, AskedIdIsUsedAndZeroMeansTheCallersOwn) {
  EXPECT_EQ(tolk::call_id_or_own(7), 7);
  EXPECT_EQ(tolk::call_id_or_own(-7), -7);
  EXPECT_EQ(tolk::call_id_or_own(0), tolk::platform::own_call_id());
  EXPECT_NE(tolk::call_id_or_own(0), 0);
}

TEST(CallIds, NullBlockIsNoArguments) {
  TolkParams empty;
  EXPECT_EQ(OutgoingCall(0, "m", nullptr, 1).arguments, std::nullopt);
  EXPECT_EQ(OutgoingCall(0, "m", &empty, 1).arguments, "");
}

// A call that was given up may still be written when its block is gone.
TEST(OutgoingCall, LargeArgumentsOutliveTheirBlock) {
  const std::string bytes(tolk::Frame::kTakeOverBytes, 'x');
  auto block = std::make_unique<TolkParams>();
  block->AddStream(bytes.data(), static_cast<long>(bytes.size()));
  const std::string encoded = *block->GetParamas();
  const OutgoingCall call(0, "m", block.get(), 1);
  EXPECT_TRUE(call.owner);
  block->AddInt(7);
  block.reset();
  EXPECT_TRUE(call.arguments == encoded);
}

// For instance one that is sent to many clients.
TEST(OutgoingCall, ThreadsMaySendOneBlockAtTheSameTime) {
  constexpr int kThreads = 4;
  for (int round = 0; round < 400; ++round) {
    const bool large = round % 2 == 0;
    TolkParams block;
    block.AddString(std::string(large ? tolk::Frame::kTakeOverBytes : 5000, 'x').c_str());
    const std::string encoded = *TolkParams(block).GetParamas();
    if (round % 4 > 1) block.ToParams();
    std::atomic<int> missing{kThreads};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&] {
        for (--missing; missing > 0;) std::this_thread::yield();
        const OutgoingCall call(0, "m", &block, 1);
        EXPECT_TRUE(call.arguments == encoded);
      });
    }
    for (std::thread& thread : threads) thread.join();
  }
}

TEST(OutgoingCall, SmallArgumentsAreOnlyLookedAt) {
  TolkParams block;
  block.AddInt(7);
  const OutgoingCall call(0, "m", &block, 1);
  EXPECT_FALSE(call.owner);
  EXPECT_EQ(call.arguments->data(), block.GetParamas()->data());
}

}  // namespace
