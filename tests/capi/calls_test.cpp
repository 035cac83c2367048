// Calls from a client to its server: blocking, started, cancelled, posted.
#include <chrono>
#include <string>

#include "pair.h"

namespace {

using tolk::test::Answer;
using tolk::test::call_client;
using tolk::test::call_server;
using tolk::test::Done;
using tolk::test::Event;
using tolk::test::Pair;
using tolk::test::text_block;
using tolk::test::text_of;
using Clock = std::chrono::steady_clock;

class CapiCalls : public Pair {};
INSTANTIATE_TEST_SUITE_P(All, CapiCalls, tolk::test::kAllTransports, tolk::test::transport_name);

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
  EXPECT_LE(took, std::chrono::milliseconds(2000));
}

TEST_P(CapiCalls, ADoneIsToldOnce) {
  server_methods.add_echo();
  start();
  Done done;
  const auto block = text_block("x");
  tolk_call call{};
  call.size = sizeof call;
  call.method = "echo";
  call.arguments = block.get();
  call.done = Done::call;
  call.context = &done;
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
  tolk_call call{};
  call.size = sizeof call;
  call.method = "echo";
  call.flags = TOLK_INLINE;
  call.done = Done::call;
  call.context = &done;
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
    tolk_call call{};
    call.size = sizeof call;
    call.method = "never";
    call.limit_ms = 20;
    call.flags = flags;
    call.done = Done::call;
    call.context = &done;
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
  tolk_call call{};
  call.size = sizeof call;
  call.method = "echo";
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
  tolk_call call{};
  call.size = sizeof call;
  call.method = "long";
  call.limit_ms = TOLK_FOREVER;
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
  Done done;
  std::atomic<int> ok{0};
  std::atomic<int> left{0};
  Event all;
  done.also = [&](const tolk_outcome* outcome) {
    ok += outcome->status == TOLK_OK ? 1 : 0;
    left += static_cast<int>(outcome->left);
    if (ok == 2) all.set();
  };
  tolk_call call{};
  call.size = sizeof call;
  call.method = "echo";
  call.client = TOLK_ALL;
  call.done = Done::call;
  call.context = &done;
  tolk_server_start(server.get(), &call);
  all.wait();
  EXPECT_EQ(left, 1);
  end();
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
