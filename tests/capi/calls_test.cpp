// Calls from a client to its server: blocking, started, cancelled, posted.
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "pair.h"

namespace {

using tolk::test::Answer;
using tolk::test::call_client;
using tolk::test::call_of;
using tolk::test::call_server;
using tolk::test::Done;
using tolk::test::Event;
using tolk::test::Methods;
using tolk::test::Pair;
using tolk::test::text_block;
using tolk::test::text_of;
using Clock = std::chrono::steady_clock;

class CapiCalls : public Pair {};
// What became of the calls of all clients.
struct OutcomesOfAll {
  std::vector<tolk_status> seen;
  bool overlap = false;
  // Whoever waits may be gone before the event is out of its own hands.
  const std::shared_ptr<Event> last = std::make_shared<Event>();
  std::function<void(const tolk_outcome*)> during = [](const tolk_outcome*) {};

  std::uint64_t start(tolk_server* server, const char* method, unsigned flags = 0) {
    tolk_call call = call_of(method, nullptr, TOLK_FOREVER);
    call.client = TOLK_ALL;
    call.flags = flags;
    call.context = this;
    call.done = [](void* context, const tolk_outcome* outcome) {
      auto& self = *static_cast<OutcomesOfAll*>(context);
      const auto keeps_event = self.last;
      self.overlap = self.busy_.exchange(true) || self.overlap;
      self.seen.push_back(outcome->status);
      self.during(outcome);
      self.busy_ = false;
      if (outcome->left == 0) keeps_event->set();
    };
    return tolk_server_start(server, &call);
  }

 private:
  std::atomic<bool> busy_{false};
};
INSTANTIATE_TEST_SUITE_P(All, CapiCalls, tolk::test::kAllTransports, tolk::test::transport_name);

TEST_P(CapiCalls, AServersErrorsNameTheAddressThatItHas) {
  listen();
  tolk_error* error = nullptr;
  EXPECT_EQ(tolk_server_call(server.get(), 7, "none", nullptr, 0, nullptr, &error),
            TOLK_NOT_CONNECTED);
  EXPECT_STREQ(tolk_error_address(error), tolk_server_address(server.get()));
  tolk_error_free(error);
}

TEST_P(CapiCalls, AnInlineHandlerAnswers) {
  server_methods.add_echo(TOLK_INLINE);
  start();
  const Answer answer = call_client(client.get(), "echo", "hello");
  EXPECT_EQ(answer.status, TOLK_OK) << answer.reason;
  EXPECT_EQ(answer.text, "hello");
}

TEST_P(CapiCalls, AWorkerAnswers) {
  server_methods.add_echo();
  start();
  for (int i = 0; i < 100; ++i) {
    const Answer answer = call_client(client.get(), "echo", std::to_string(i));
    ASSERT_EQ(answer.status, TOLK_OK) << answer.reason;
    ASSERT_EQ(answer.text, std::to_string(i));
  }
}

TEST_P(CapiCalls, LargeTextsArrive) {
  server_methods.add_echo();
  start();
  const std::string large(5000000, 'x');
  EXPECT_EQ(call_client(client.get(), "echo", large, 30000).text, large);
}

TEST_P(CapiCalls, TheServerCallsItsClient) {
  client_methods.add_echo();
  start();
  const Answer answer = call_server(server.get(), first_client(), "echo", "back");
  EXPECT_EQ(answer.status, TOLK_OK) << answer.reason;
  EXPECT_EQ(answer.text, "back");
  const Answer nobody = call_server(server.get(), 12345678, "echo", "back");
  EXPECT_EQ(nobody.status, TOLK_NOT_CONNECTED);
  EXPECT_EQ(nobody.reason, "there is no such client");
}

TEST_P(CapiCalls, AnUnknownMethodIsNoMethod) {
  start();
  EXPECT_EQ(call_client(client.get(), "nothing", "").status, TOLK_NO_METHOD);
  EXPECT_EQ(call_server(server.get(), first_client(), "nothing", "").status, TOLK_NO_METHOD);
}

TEST_P(CapiCalls, ALimitIsKept) {
  server_methods.add("never", [](tolk_request* request) {
    while (tolk_request_state(request) == TOLK_OK) std::this_thread::yield();
    tolk_request_free(request);
  });
  start();
  const auto begin = Clock::now();
  const Answer answer = call_client(client.get(), "never", "", 50);
  EXPECT_EQ(answer.status, TOLK_TIMED_OUT);
  EXPECT_EQ(answer.reason, "timed out after 50 ms");
  const auto took = Clock::now() - begin;
  EXPECT_GE(took, std::chrono::milliseconds(50));
  EXPECT_LT(took, tolk::test::kPatience / 2);
}

TEST_P(CapiCalls, ADoneIsToldOnce) {
  server_methods.add_echo();
  start();
  Done done;
  const auto block = text_block("x");
  tolk_call call = call_of("echo", &done);
  call.arguments = block.get();
  const auto number = tolk_client_start(client.get(), &call);
  done.wait();
  EXPECT_EQ(done.number, number);
  EXPECT_EQ(done.answer.text, "x");
  EXPECT_EQ(tolk_client_wait(client.get(), number, nullptr, nullptr), TOLK_MISUSE);
  EXPECT_FALSE(tolk_client_cancel(client.get(), number));
  EXPECT_EQ(done.calls, 1);
}

TEST_P(CapiCalls, AnInlineDoneRunsOnTheLoopThreadAndMustNotWait) {
  server_methods.add_echo();
  start();
  Done done;
  tolk_status inner = TOLK_OK;
  done.also = [&](const tolk_outcome*) { inner = call_client(client.get(), "echo", "x").status; };
  tolk_call call = call_of("echo", &done);
  call.flags = TOLK_INLINE;
  tolk_client_start(client.get(), &call);
  done.wait();
  EXPECT_EQ(done.answer.status, TOLK_OK);
  EXPECT_EQ(inner, TOLK_MISUSE);
}

TEST_P(CapiCalls, ADoneIsToldOfTheLimit) {
  Event answered;
  server_methods.add("never", [&](tolk_request* request) {
    answered.wait();
    tolk_request_free(request);
  });
  start();
  for (const unsigned flags : {0U, static_cast<unsigned>(TOLK_INLINE)}) {
    Done done;
    tolk_call call = call_of("never", &done, 20);
    call.flags = flags;
    tolk_client_start(client.get(), &call);
    done.wait();
    EXPECT_EQ(done.answer.status, TOLK_TIMED_OUT);
    EXPECT_EQ(done.answer.reason, "timed out after 20 ms");
  }
  answered.set();
  end();
}

TEST_P(CapiCalls, AStartedCallIsWaitedForOnce) {
  server_methods.add_echo();
  start();
  const auto block = text_block("later");
  tolk_call call = call_of("echo");
  call.arguments = block.get();
  const auto number = tolk_client_start(client.get(), &call);
  tolk_block* result = nullptr;
  EXPECT_EQ(tolk_client_wait(client.get(), number, &result, nullptr), TOLK_OK);
  EXPECT_EQ(text_of(result), "later");
  tolk_block_free(result);
  EXPECT_EQ(tolk_client_wait(client.get(), number, &result, nullptr), TOLK_MISUSE);
}

TEST_P(CapiCalls, TheHandlerLearnsOfACancel) {
  Event begun;
  Event seen;
  server_methods.add("long", [&](tolk_request* request) {
    begun.set();
    while (tolk_request_state(request) == TOLK_OK) std::this_thread::yield();
    EXPECT_EQ(tolk_request_state(request), TOLK_CANCELLED);
    tolk_request_free(request);
    seen.set();
  });
  start();
  tolk_call call = call_of("long", nullptr, TOLK_FOREVER);
  const auto number = tolk_client_start(client.get(), &call);
  begun.wait();
  EXPECT_TRUE(tolk_client_cancel(client.get(), number));
  EXPECT_FALSE(tolk_client_cancel(client.get(), number));
  seen.wait();
  EXPECT_EQ(tolk_client_wait(client.get(), number, nullptr, nullptr), TOLK_CANCELLED);
  end();
}

TEST_P(CapiCalls, PostsAndCallsArriveInOrder) {
  std::string seen;
  server_methods.add(
      "note",
      [&](tolk_request* request) {
        seen += text_of(tolk_request_arguments(request));
        tolk_request_answer(request, nullptr);
      },
      TOLK_INLINE);
  start();
  std::string wanted;
  for (int i = 0; i < 1000; ++i) {
    const std::string text = std::to_string(i);
    wanted += text;
    ASSERT_EQ(tolk_client_post(client.get(), "note", text_block(text).get(), 0, nullptr), TOLK_OK);
  }
  ASSERT_EQ(call_client(client.get(), "note", "end").status, TOLK_OK);
  EXPECT_EQ(seen, wanted + "end");
  end();
}

TEST_P(CapiCalls, ACallToAllTellsEachOutcome) {
  client_methods.add_echo();
  start();
  const auto second = connect();
  OutcomesOfAll outcomes;
  EXPECT_NE(outcomes.start(server.get(), "echo"), 0U);
  outcomes.last->wait();
  EXPECT_EQ(outcomes.seen, (std::vector<tolk_status>{TOLK_OK, TOLK_OK}));
  end();
}

// The first one waits until all clients have answered, and calls them: the loop thread has given
// the other outcomes to workers meanwhile.
TEST_P(CapiCalls, OutcomesOfACallToAllComeOneAfterTheOther) {
  client_methods.add_echo(TOLK_INLINE);
  start();
  std::vector<tolk::test::Owned<tolk_client>> more;
  for (int i = 0; i < 3; ++i) more.push_back(connect());
  std::vector<std::uint64_t> ids(4);
  ASSERT_EQ(tolk_server_clients(server.get(), ids.data(), ids.size()), ids.size());
  OutcomesOfAll outcomes;
  outcomes.during = [&](const tolk_outcome* outcome) {
    for (int round = 0; outcome->left == 3 && round < 20; ++round) {
      for (const auto id : ids)
        EXPECT_EQ(call_server(server.get(), id, "echo", "").status, TOLK_OK);
    }
  };
  outcomes.start(server.get(), "echo");
  outcomes.last->wait();
  EXPECT_EQ(outcomes.seen.size(), 4U);
  EXPECT_FALSE(outcomes.overlap);
  end();
}

TEST_P(CapiCalls, AnOutcomeOfACallToAllMayFreeTheServer) {
  for (const unsigned flags : {0U, unsigned{TOLK_INLINE}}) {
    std::mutex mutex;
    std::vector<tolk_request*> kept;
    Methods methods;
    methods.add("ask", [&](tolk_request* request) {
      const std::lock_guard lock(mutex);
      kept.push_back(request);
      if (kept.size() == 3) tolk_request_answer(std::exchange(kept.back(), nullptr), nullptr);
    });
    tolk_client_options options{};
    options.methods = methods.get();
    ASSERT_NO_FATAL_FAILURE(listen());
    std::vector<tolk::test::Owned<tolk_client>> clients;
    for (int i = 0; i < 3; ++i) clients.push_back(connect(options));
    OutcomesOfAll outcomes;
    outcomes.during = [&](const tolk_outcome* outcome) {
      if (outcome->left == 2) server.reset();
    };
    outcomes.start(server.get(), "ask", flags);
    outcomes.last->wait();
    EXPECT_EQ(outcomes.seen, (std::vector<tolk_status>{TOLK_OK, TOLK_CLOSED, TOLK_CLOSED}));
    EXPECT_FALSE(outcomes.overlap);
    clients.clear();
    for (tolk_request* const request : kept) tolk_request_free(request);
  }
}

TEST_P(CapiCalls, NestedCallsUseUpNoThreads) {
  server_methods.add("down", [&](tolk_request* request) {
    const int depth = std::stoi(text_of(tolk_request_arguments(request)));
    std::string text = "bottom";
    if (depth > 0) {
      text = call_server(tolk_request_server(request), tolk_request_peer(request)->client, "down",
                         std::to_string(depth - 1))
                 .text;
    }
    tolk_request_answer(request, text_block(text).release());
  });
  client_methods.add("down", [&](tolk_request* request) {
    const int depth = std::stoi(text_of(tolk_request_arguments(request)));
    const std::string text =
        call_client(tolk_request_client(request), "down", std::to_string(depth - 1)).text;
    tolk_request_answer(request, text_block(text).release());
  });
  start();
  std::vector<std::thread> callers;
  for (int i = 0; i < 4; ++i) {
    callers.emplace_back(
        [&] { EXPECT_EQ(call_client(client.get(), "down", "6", 20000).text, "bottom"); });
  }
  for (auto& caller : callers) caller.join();
}

}  // namespace
