// How exactly limits are kept.
#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "pair.h"
#include "tests/e2e/support/system.h"

namespace {

using tolk::test::call_client;
using tolk::test::call_of;
using tolk::test::Done;
using tolk::test::Event;
using tolk::test::Pair;
using tolk::test::text_block;
using Clock = std::chrono::steady_clock;

class CapiLimits : public Pair {
 protected:
  static constexpr int kLimitMs = 50;
  // Under Wine, timers are coarse.
  static constexpr int kLateMs = kLimitMs + (tolk::test::kOnWindows ? 25 : 10);

  // A request may arrive until both ends are closed.
  ~CapiLimits() override {
    end();
    for (tolk_request* const request : kept_) tolk_request_free(request);
  }

  // "keep" never answers.
  void start_with_keep() {
    server_methods.add(
        "keep", [this](tolk_request* request) { kept_.push_back(request); }, TOLK_INLINE);
    start();
  }

  // `try_once` returns how long a wait took. A machine that is busy delays some of them, so the
  // quickest counts. None may end early.
  template <class Try>
  static void expect_limit_is_kept(const Try& try_once) {
    constexpr int kTries = 20;
    double quickest_ms = 1e9;
    for (int i = 0; i < kTries && quickest_ms >= kLateMs; ++i) {
      const double took_ms = std::chrono::duration<double, std::milli>(try_once()).count();
      EXPECT_GE(took_ms, kLimitMs);
      quickest_ms = std::min(quickest_ms, took_ms);
    }
    EXPECT_LT(quickest_ms, kLateMs);
  }

 private:
  std::vector<tolk_request*> kept_;
};
INSTANTIATE_TEST_SUITE_P(All, CapiLimits, tolk::test::kAllTransports, tolk::test::transport_name);

TEST_P(CapiLimits, ACallEndsInTime) {
  start_with_keep();
  expect_limit_is_kept([&] {
    const auto begin = Clock::now();
    EXPECT_EQ(call_client(client.get(), "keep", "", kLimitMs).status, TOLK_TIMED_OUT);
    return Clock::now() - begin;
  });
}

TEST_P(CapiLimits, AWaitForACallEndsInTime) {
  start_with_keep();
  const tolk_call call = call_of("keep", nullptr, TOLK_FOREVER);
  const auto number = tolk_client_start(client.get(), &call);
  expect_limit_is_kept([&] {
    const auto begin = Clock::now();
    EXPECT_EQ(tolk_client_wait_for(client.get(), number, kLimitMs, nullptr, nullptr), TOLK_BUSY);
    return Clock::now() - begin;
  });
}

TEST_P(CapiLimits, ADoneIsToldInTime) {
  start_with_keep();
  for (const unsigned flags : {0U, static_cast<unsigned>(TOLK_INLINE)}) {
    expect_limit_is_kept([&] {
      Done done;
      Clock::time_point told;
      done.also = [&](const tolk_outcome*) { told = Clock::now(); };
      tolk_call call = call_of("keep", &done, kLimitMs);
      call.flags = flags;
      const auto begin = Clock::now();
      tolk_client_start(client.get(), &call);
      done.wait();
      EXPECT_EQ(done.answer.status, TOLK_TIMED_OUT);
      return told - begin;
    });
  }
}

TEST_P(CapiLimits, APostWaitsForRoomUntilItsLimit) {
  Event may_end;
  server_methods.add(
      "block",
      [&](tolk_request* request) {
        may_end.wait();
        tolk_request_free(request);
      },
      TOLK_INLINE);
  listen();
  tolk_client_options options{};
  options.most_queued_bytes = 1000000;
  client = connect(options);
  ASSERT_EQ(tolk_client_post(client.get(), "block", nullptr, 0, nullptr), TOLK_OK);
  const auto block = text_block(std::string(900000, 'x'));
  expect_limit_is_kept([&] {
    // What is queued may still go to the system, and makes room.
    for (;;) {
      const auto begin = Clock::now();
      const auto posted = tolk_client_post(client.get(), "note", block.get(), kLimitMs, nullptr);
      if (posted == TOLK_OK) continue;
      EXPECT_EQ(posted, TOLK_BUSY);
      return Clock::now() - begin;
    }
  });
  may_end.set();
  end();
}

TEST_P(CapiLimits, ACloseEndsInTime) {
  struct Handler {
    Event begun;
    Event may_end;
  };
  std::unique_ptr<Handler> slow;
  client_methods.add("slow", [&](tolk_request* request) {
    slow->begun.set();
    slow->may_end.wait();
    tolk_request_free(request);
  });
  listen();
  expect_limit_is_kept([&] {
    slow = std::make_unique<Handler>();
    client = connect();
    EXPECT_EQ(tolk_server_post(server.get(), TOLK_ALL, "slow", nullptr, 0, nullptr), TOLK_OK);
    EXPECT_TRUE(slow->begun.wait());
    const auto begin = Clock::now();
    EXPECT_EQ(tolk_client_close(client.get(), kLimitMs), TOLK_TIMED_OUT);
    const auto took = Clock::now() - begin;
    slow->may_end.set();
    client.reset();  // waits for the handler
    return took;
  });
}

}  // namespace
