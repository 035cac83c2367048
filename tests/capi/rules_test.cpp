// What holds while several threads end the same calls and objects.
#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "pair.h"

namespace {

using tolk::test::call_client;
using tolk::test::call_of;
using tolk::test::Done;
using tolk::test::Event;
using tolk::test::Pair;
using tolk::test::text_block;
using tolk::test::text_of;

class CapiRules : public Pair {
 protected:
  // A request may arrive until both ends are closed.
  ~CapiRules() override {
    end();
    for (tolk_request* const request : kept_) tolk_request_free(request);
  }

  void start_with_keep(unsigned workers = 0) {
    const auto keep = [this](tolk_request* request) {
      kept_.push_back(request);
      has_kept.set();
    };
    server_methods.add("keep", keep, TOLK_INLINE);
    client_methods.add("keep", keep, TOLK_INLINE);
    server_methods.add_echo(TOLK_INLINE);
    listen();
    tolk_client_options options{};
    options.workers = workers;
    client = connect(options);
    ASSERT_NE(client, nullptr);
  }

  std::uint64_t begin(const char* method, Done& done, unsigned flags = 0) {
    tolk_call call = call_of(method, &done, TOLK_FOREVER);
    call.flags = flags;
    return tolk_client_start(client.get(), &call);
  }

  // Of a client or a server, whose calls go to "keep".
  template <class Start, class Wait, class Cancel>
  static void expect_that_a_wait_leaves_the_call(const Start& start, const Wait& wait,
                                                 const Cancel& cancel) {
    const auto endless = start(TOLK_FOREVER);
    EXPECT_EQ(wait(endless, 0), TOLK_BUSY);
    EXPECT_EQ(wait(endless, 5), TOLK_BUSY);
    EXPECT_TRUE(cancel(endless));
    EXPECT_EQ(wait(endless, 20000), TOLK_CANCELLED);
    EXPECT_EQ(wait(endless, 0), TOLK_MISUSE);
    const auto limited = start(50);
    EXPECT_EQ(wait(limited, 20000), TOLK_TIMED_OUT) << "the call's own limit";
    EXPECT_EQ(wait(limited, 0), TOLK_MISUSE);
  }

  Event has_kept;

 private:
  std::vector<tolk_request*> kept_;
};
INSTANTIATE_TEST_SUITE_P(All, CapiRules, tolk::test::kAllTransports, tolk::test::transport_name);

TEST_P(CapiRules, OneOfTwoWaitsIsRefused) {
  start_with_keep();
  tolk_call call = call_of("keep", nullptr, TOLK_FOREVER);
  const auto number = tolk_client_start(client.get(), &call);
  std::atomic<int> misused{0};
  std::atomic<int> cancelled{0};
  Event refused;
  const auto wait = [&] {
    const tolk_status status = tolk_client_wait(client.get(), number, nullptr, nullptr);
    misused += status == TOLK_MISUSE ? 1 : 0;
    cancelled += status == TOLK_CANCELLED ? 1 : 0;
    if (status == TOLK_MISUSE) refused.set();
  };
  std::thread first(wait);
  std::thread second(wait);
  EXPECT_TRUE(refused.wait());
  EXPECT_TRUE(tolk_client_cancel(client.get(), number));
  first.join();
  second.join();
  EXPECT_EQ(misused, 1);
  EXPECT_EQ(cancelled, 1);
}

TEST_P(CapiRules, AWaitWithALimitLeavesTheCall) {
  start_with_keep();
  expect_that_a_wait_leaves_the_call(
      [&](int limit_ms) {
        const tolk_call call = call_of("keep", nullptr, limit_ms);
        return tolk_client_start(client.get(), &call);
      },
      [&](std::uint64_t number, int limit_ms) {
        return tolk_client_wait_for(client.get(), number, limit_ms, nullptr, nullptr);
      },
      [&](std::uint64_t number) { return tolk_client_cancel(client.get(), number); });
}

TEST_P(CapiRules, AServersWaitWithALimitLeavesTheCall) {
  start_with_keep();
  expect_that_a_wait_leaves_the_call(
      [&](int limit_ms) {
        tolk_call call = call_of("keep", nullptr, limit_ms);
        call.client = first_client();
        return tolk_server_start(server.get(), &call);
      },
      [&](std::uint64_t number, int limit_ms) {
        return tolk_server_wait_for(server.get(), number, limit_ms, nullptr, nullptr);
      },
      [&](std::uint64_t number) { return tolk_server_cancel(server.get(), number); });
}

// As one without a limit does.
TEST_P(CapiRules, AWaitWithALimitTakesTheOutcome) {
  client_methods.add_echo();
  client_methods.add("fail", [](tolk_request* request) {
    tolk_request_fail(request, TOLK_FAILED, 0, "because", nullptr);
  });
  server_methods.add_echo();
  start();
  const auto block = text_block("x");
  for (const bool of_server : {false, true}) {
    tolk_call call = call_of("echo");
    call.arguments = block.get();
    call.client = first_client();
    tolk_block* result = nullptr;
    const auto wait = [&](std::uint64_t number, tolk_error** error) {
      return of_server ? tolk_server_wait_for(server.get(), number, 20000, &result, error)
                       : tolk_client_wait_for(client.get(), number, 20000, &result, error);
    };
    const auto start_one = [&] {
      return of_server ? tolk_server_start(server.get(), &call)
                       : tolk_client_start(client.get(), &call);
    };
    EXPECT_EQ(wait(start_one(), nullptr), TOLK_OK);
    EXPECT_EQ(text_of(result), "x");
    tolk_block_free(result);
    call.method = "fail";
    tolk_error* error = nullptr;
    EXPECT_EQ(wait(start_one(), &error), of_server ? TOLK_FAILED : TOLK_NO_METHOD);
    EXPECT_EQ(result, nullptr);
    EXPECT_STREQ(tolk_error_method(error), "fail");
    tolk_error_free(error);
  }
}

TEST_P(CapiRules, AWaitForAnUnknownCallOfAClosedObjectIsClosed) {
  start_with_keep();
  EXPECT_EQ(tolk_client_wait(client.get(), 1, nullptr, nullptr), TOLK_MISUSE);
  EXPECT_EQ(tolk_client_close(client.get(), 0), TOLK_OK);
  EXPECT_EQ(tolk_client_wait(client.get(), 1, nullptr, nullptr), TOLK_CLOSED);
  tolk_call call = call_of("keep");
  const auto number = tolk_client_start(client.get(), &call);
  EXPECT_EQ(tolk_client_wait(client.get(), number, nullptr, nullptr), TOLK_CLOSED);
}

// The only worker is in the first callback, which starts a call while the free waits for it.
TEST_P(CapiRules, ACallStartedWhileAFreeWaitsIsToldBeforeItReturns) {
  start_with_keep(1);
  Done first;
  Done second;
  Done third;
  Event first_runs;
  tolk_client* const raw = client.get();
  first.also = [&](const tolk_outcome*) {
    first_runs.set();
    second.wait();
    tolk_call call = call_of("echo", &third);
    EXPECT_NE(tolk_client_start(raw, &call), 0U);
  };
  begin("echo", first);
  ASSERT_TRUE(first_runs.wait());
  begin("keep", second);
  client.reset();
  EXPECT_EQ(first.calls, 1);
  EXPECT_EQ(second.answer.status, TOLK_CLOSED);
  EXPECT_EQ(third.calls, 1);
  EXPECT_EQ(third.answer.status, TOLK_CLOSED);
}

// The loop thread is in an inline callback that waits for the one in which the client is freed.
TEST_P(CapiRules, AFreeInACallbackDoesNotWaitForTheLoop) {
  start_with_keep();
  Done inline_one;
  Done freeing;
  Event loop_is_busy;
  Event freed;
  inline_one.also = [&](const tolk_outcome*) {
    loop_is_busy.set();
    EXPECT_TRUE(freed.wait());
  };
  freeing.also = [&](const tolk_outcome*) {
    client.reset();
    freed.set();
  };
  const auto kept = begin("keep", freeing);
  ASSERT_TRUE(has_kept.wait());
  begin("echo", inline_one, TOLK_INLINE);
  ASSERT_TRUE(loop_is_busy.wait());
  EXPECT_TRUE(tolk_client_cancel(client.get(), kept));
  inline_one.wait();
  freeing.wait();
  EXPECT_EQ(freeing.answer.status, TOLK_CANCELLED);
}

// The executor may be ended after the free: nobody is in it any more.
TEST_P(CapiRules, AFreeWaitsForTheCallOfTheExecutor) {
  struct Executor {
    std::vector<tolk_task*> tasks;
    Event entered;
    Done done;
    Event freed;
    bool left = false;
  } executor;
  start_with_keep();
  tolk_client_options options{};
  options.context = &executor;
  options.execute = [](void* context, tolk_task* task) {
    auto& self = *static_cast<Executor*>(context);
    self.tasks.push_back(task);
    self.entered.set();
    self.done.wait();                                 // the free has taken the task
    self.freed.wait(std::chrono::milliseconds(100));  // it must not return
    self.left = true;
  };
  client = connect(options);
  Done& done = executor.done;
  const auto number = begin("keep", done);
  ASSERT_TRUE(has_kept.wait());
  std::thread cancels([&, raw = client.get()] { EXPECT_TRUE(tolk_client_cancel(raw, number)); });
  ASSERT_TRUE(executor.entered.wait());
  client.reset();
  executor.freed.set();
  EXPECT_TRUE(executor.left);
  EXPECT_EQ(done.calls, 1);
  cancels.join();
  for (tolk_task* const task : executor.tasks) tolk_task_run(task);
  EXPECT_EQ(done.calls, 1);
}

// Thousands of requests take a sanitizer a while.
constexpr std::chrono::minutes kReadAll{2};

// Each request that is dropped makes the next one's turn; that must not need a stack for all.
TEST_P(CapiRules, ThousandsOfOrderedRequestsAreDropped) {
  constexpr int kMany = 100000;
  // The loop thread outlives the free in a callback, and so perhaps the test.
  struct Events {
    Event may_free;
    Event dropped;
    Event loop_goes_on;
  };
  const auto events = std::make_shared<Events>();
  server_methods.add(
      "one",
      [this, events](tolk_request* request) {
        EXPECT_TRUE(events->may_free.wait(kReadAll));
        server.reset();
        tolk_request_answer(request, nullptr);
        events->dropped.set();
      },
      TOLK_ORDERED);
  server_methods.add(
      "block",
      [events](tolk_request* request) {
        events->may_free.set();
        EXPECT_TRUE(events->dropped.wait(kReadAll));
        tolk_request_free(request);
        events->loop_goes_on.set();
      },
      TOLK_INLINE);
  tolk_server_options options{};
  options.most_client_requests = 2 * kMany;
  listen(options);
  client = connect();
  for (int i = 0; i < kMany; ++i) {
    ASSERT_EQ(tolk_client_post(client.get(), "one", nullptr, TOLK_FOREVER, nullptr), TOLK_OK);
  }
  ASSERT_EQ(tolk_client_post(client.get(), "block", nullptr, TOLK_FOREVER, nullptr), TOLK_OK);
  EXPECT_TRUE(events->loop_goes_on.wait(kReadAll));
}

TEST_P(CapiRules, ACloseInACallbackLetsItsAnswerOut) {
  tolk_status closed = TOLK_MISUSE;
  server_methods.add("stop", [&](tolk_request* request) {
    closed = tolk_server_close(tolk_request_server(request), 20000);
    EXPECT_EQ(tolk_server_wait_closed(tolk_request_server(request), 50), TOLK_TIMED_OUT);
    EXPECT_EQ(tolk_request_state(request), TOLK_OK);
    tolk_request_answer(request, text_block(std::string(3000000, 'x')).release());
  });
  start();
  EXPECT_EQ(call_client(client.get(), "stop", "", 20000).text.size(), 3000000U);
  EXPECT_EQ(closed, TOLK_OK);
  EXPECT_EQ(tolk_server_wait_closed(server.get(), 20000), TOLK_OK);
  end();
}

TEST_P(CapiRules, ACloseInACallbackKeepsItsLimit) {
  Event over;
  server_methods.add("stop", [&](tolk_request* request) {
    EXPECT_EQ(tolk_server_close(tolk_request_server(request), 50), TOLK_OK);
    EXPECT_EQ(tolk_server_wait_closed(tolk_request_server(request), 20000), TOLK_OK);
    tolk_request_free(request);
    over.set();
  });
  start();
  EXPECT_EQ(call_client(client.get(), "stop", "", 20000).status, TOLK_GONE);
  EXPECT_TRUE(over.wait());
  end();
}

TEST_P(CapiRules, ACloseKeepsItsLimitBehindASlowInlineCallback) {
  Event begun;
  Event closed;
  server_methods.add(
      "slow",
      [&](tolk_request* request) {
        begun.set();
        EXPECT_TRUE(closed.wait());
        tolk_request_free(request);
      },
      TOLK_INLINE);
  start();
  EXPECT_EQ(tolk_client_post(client.get(), "slow", nullptr, 0, nullptr), TOLK_OK);
  EXPECT_TRUE(begun.wait());
  EXPECT_EQ(tolk_server_close(server.get(), 20), TOLK_TIMED_OUT);
  EXPECT_EQ(tolk_server_wait_closed(server.get(), 0), TOLK_TIMED_OUT);
  closed.set();
  EXPECT_EQ(tolk_server_wait_closed(server.get(), 20000), TOLK_OK);
  end();
}

TEST_P(CapiRules, AFreeCutsTheDrainOfACallbackShort) {
  Event closing;
  Event freed;
  server_methods.add("stop", [&](tolk_request* request) {
    tolk_server_close(tolk_request_server(request), TOLK_FOREVER);
    closing.set();
    while (tolk_request_state(request) == TOLK_OK) std::this_thread::yield();
    tolk_request_free(request);
  });
  start();
  EXPECT_EQ(tolk_client_post(client.get(), "stop", nullptr, 0, nullptr), TOLK_OK);
  EXPECT_TRUE(closing.wait());
  server.reset();
}

}  // namespace
