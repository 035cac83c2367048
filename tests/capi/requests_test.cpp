// Requests: failures, answers from elsewhere, order, executors, quotas, hooks.
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "pair.h"
#include "tests/e2e/support/waiting.h"
#include "tests/host_executor.h"

namespace {

using tolk::test::call_client;
using tolk::test::call_of;
using tolk::test::Event;
using tolk::test::eventually;
using tolk::test::HostExecutor;
using tolk::test::Pair;
using tolk::test::text_block;
using tolk::test::text_of;

class CapiRequests : public Pair {};
INSTANTIATE_TEST_SUITE_P(All, CapiRequests, tolk::test::kAllTransports, tolk::test::transport_name);

TEST_P(CapiRequests, AFailureHasItsTextCodeAndDetails) {
  server_methods.add("fail", [](tolk_request* request) {
    tolk_request_fail(request, TOLK_FAILED, 42, "no such file", text_block("more").release());
  });
  start();
  tolk_error* error = nullptr;
  EXPECT_EQ(tolk_client_call(client.get(), "fail", nullptr, 0, nullptr, &error), TOLK_FAILED);
  EXPECT_STREQ(tolk_error_reason(error), "no such file");
  EXPECT_STREQ(tolk_error_method(error), "fail");
  EXPECT_EQ(tolk_error_code(error), 42);
  EXPECT_EQ(text_of(tolk_error_details(error)), "more");
  tolk_error_free(error);
}

TEST_P(CapiRequests, ADroppedRequestIsUnanswered) {
  server_methods.add("drop", [](tolk_request* request) { tolk_request_free(request); });
  server_methods.add("wrong", [](tolk_request* request) {
    tolk_request_fail(request, TOLK_WRONG_ARGUMENTS, 0, "two numbers", nullptr);
  });
  start();
  EXPECT_EQ(call_client(client.get(), "drop", "").status, TOLK_UNANSWERED);
  EXPECT_EQ(call_client(client.get(), "wrong", "").status, TOLK_WRONG_ARGUMENTS);
}

TEST_P(CapiRequests, AnotherThreadAnswersLater) {
  tolk_request* kept = nullptr;
  Event has_it;
  server_methods.add(
      "later",
      [&](tolk_request* request) {
        kept = request;
        has_it.set();
      },
      TOLK_INLINE);
  start();
  std::thread answers([&] {
    has_it.wait();
    EXPECT_STREQ(tolk_request_method(kept), "later");
    tolk_request_answer(kept, text_block("now").release());
  });
  EXPECT_EQ(call_client(client.get(), "later", "").text, "now");
  answers.join();
  end();
}

// While handlers are short, requests wait for the workers that run. One that blocks keeps none of
// them waiting.
TEST_P(CapiRequests, AHandlerThatBlocksAmongShortOnesHoldsNobodyUp) {
  constexpr int kBlocked = 3;  // one fewer than the usual workers
  Event goes_on;
  server_methods.add_echo();
  server_methods.add("block", [&](tolk_request* request) {
    goes_on.wait();
    tolk_request_answer(request, nullptr);
  });
  start();
  for (int blocked = 0; blocked < kBlocked; ++blocked) {
    for (int i = 0; i < 200; ++i) EXPECT_EQ(call_client(client.get(), "echo", "x").text, "x");
    EXPECT_EQ(tolk_client_post(client.get(), "block", nullptr, 0, nullptr), TOLK_OK);
    std::vector<std::uint64_t> calls;
    for (int i = 0; i < 20; ++i) {
      tolk_call call = call_of("echo");
      call.limit_ms = 5000;  // shorter than a handler blocks
      calls.push_back(tolk_client_start(client.get(), &call));
    }
    for (const std::uint64_t call : calls) {
      EXPECT_EQ(tolk_client_wait(client.get(), call, nullptr, nullptr), TOLK_OK);
    }
  }
  goes_on.set();
  end();
}

TEST_P(CapiRequests, OrderedMethodsWaitForTheAnswerBefore) {
  std::atomic<int> under_way{0};
  std::string seen;
  server_methods.add(
      "one",
      [&](tolk_request* request) {
        EXPECT_EQ(++under_way, 1);
        seen += text_of(tolk_request_arguments(request));
        std::thread([&under_way, request] {
          --under_way;
          tolk_request_answer(request, nullptr);
        }).detach();
      },
      TOLK_ORDERED);
  start();
  std::string wanted;
  for (int i = 0; i < 50; ++i) {
    wanted += std::to_string(i);
    tolk_client_post(client.get(), "one", text_block(std::to_string(i)).get(), 0, nullptr);
  }
  EXPECT_EQ(call_client(client.get(), "one", "!").status, TOLK_OK);
  EXPECT_EQ(seen, wanted + "!");
  end();
}

TEST_P(CapiRequests, AnExecutorRunsHandlersAndOutcomes) {
  HostExecutor executor;
  std::thread::id ran_on;
  server_methods.add("where", [&](tolk_request* request) {
    ran_on = std::this_thread::get_id();
    tolk_request_answer(request, nullptr);
  });
  tolk_server_options options{};
  options.context = &executor;
  options.execute = HostExecutor::execute;
  listen(options);
  client = connect();
  EXPECT_EQ(call_client(client.get(), "where", "").status, TOLK_OK);
  EXPECT_EQ(ran_on, executor.thread());
  end();
  executor.end();
  EXPECT_EQ(executor.trouble(), "");
}

struct Hooks {
  std::mutex mutex;
  std::vector<std::string> seen;
  Event gone;
  void add(std::string what, const tolk_peer* peer) {
    const std::lock_guard lock(mutex);
    seen.push_back(std::move(what) + " " + std::to_string(peer->client));
  }
};

tolk_server_options hook_options(Hooks& hooks) {
  tolk_server_options options{};
  options.context = &hooks;
  options.on_connect = [](void* context, tolk_server*, const tolk_peer* peer) {
    static_cast<Hooks*>(context)->add("connect", peer);
  };
  options.on_gone = [](void* context, tolk_server*, const tolk_peer* peer) {
    static_cast<Hooks*>(context)->add("gone", peer);
    static_cast<Hooks*>(context)->gone.set();
  };
  return options;
}

TEST_P(CapiRequests, HooksTellOfEachClientOnce) {
  Hooks hooks;
  server_methods.add_echo(TOLK_INLINE);
  listen(hook_options(hooks));
  client = connect();
  EXPECT_EQ(call_client(client.get(), "echo", "x").text, "x");
  const std::string id = std::to_string(first_client());
  client.reset();
  hooks.gone.wait();
  server.reset();
  EXPECT_EQ(hooks.seen, (std::vector<std::string>{"connect " + id, "gone " + id}));
  end();
}

TEST_P(CapiRequests, OrderedPostsOutliveTheirClient) {
  Hooks hooks;
  Event go_on;
  std::atomic<int> noted{0};
  server_methods.add(
      "note",
      [&](tolk_request* request) {
        go_on.wait();
        ++noted;
        tolk_request_free(request);
      },
      TOLK_ORDERED);
  listen(hook_options(hooks));
  client = connect();
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(tolk_client_post(client.get(), "note", nullptr, 0, nullptr), TOLK_OK);
  }
  EXPECT_EQ(tolk_client_close(client.get(), TOLK_FOREVER), TOLK_OK);
  hooks.gone.wait();
  go_on.set();
  EXPECT_TRUE(eventually([&] { return noted == 100; }));
  end();
}

// Tasks that wait until the test runs them.
struct SlowExecutor {
  static void execute(void* self, tolk_task* task) {
    auto& executor = *static_cast<SlowExecutor*>(self);
    const std::lock_guard lock(executor.mutex);
    executor.tasks.push_back(task);
  }
  bool run_next() {
    tolk_task* task = nullptr;
    {
      const std::lock_guard lock(mutex);
      if (tasks.empty()) return false;
      task = tasks.front();
      tasks.erase(tasks.begin());
    }
    tolk_task_run(task);
    return true;
  }
  std::mutex mutex;
  std::vector<tolk_task*> tasks;
};

TEST_P(CapiRequests, PostsThatWaitForOnConnectOutliveTheirClient) {
  SlowExecutor executor;
  int noted = 0;
  server_methods.add("note", [&](tolk_request* request) {
    ++noted;
    tolk_request_free(request);
  });
  tolk_server_options options{};
  options.context = &executor;
  options.execute = SlowExecutor::execute;
  options.on_connect = [](void*, tolk_server*, const tolk_peer*) {};
  listen(options);
  client = connect();
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(tolk_client_post(client.get(), "note", nullptr, 0, nullptr), TOLK_OK);
  }
  EXPECT_EQ(tolk_client_close(client.get(), TOLK_FOREVER), TOLK_OK);
  EXPECT_TRUE(eventually([&] { return tolk_server_clients(server.get(), nullptr, 0) == 0; }));
  EXPECT_EQ(noted, 0);
  while (executor.run_next()) {
  }
  EXPECT_EQ(noted, 3);
  end();
}

TEST_P(CapiRequests, AGoneClientCountsWhileItsRequestsAreUnderWay) {
  Hooks hooks;
  tolk_request* kept = nullptr;
  Event keeps;
  server_methods.add(
      "keep",
      [&](tolk_request* request) {
        kept = request;
        keeps.set();
      },
      TOLK_INLINE);
  tolk_server_options options = hook_options(hooks);
  options.most_clients = 1;
  listen(options);
  client = connect();
  EXPECT_EQ(tolk_client_post(client.get(), "keep", nullptr, 0, nullptr), TOLK_OK);
  EXPECT_EQ(tolk_client_close(client.get(), TOLK_FOREVER), TOLK_OK);
  hooks.gone.wait();
  keeps.wait();  // the hook may be told before the handler is
  const auto try_connect = [&] {
    tolk_client* other = nullptr;
    const tolk_status status =
        tolk_client_connect(tolk_server_address(server.get()), nullptr, &other, nullptr);
    tolk_client_free(other);
    return status == TOLK_OK;
  };
  EXPECT_FALSE(try_connect());
  tolk_request_free(kept);
  EXPECT_TRUE(eventually(try_connect));
  end();
}

TEST_P(CapiRequests, AServersEndTellsThatItsClientsAreGone) {
  Hooks hooks;
  listen(hook_options(hooks));
  client = connect();
  const std::string id = std::to_string(first_client());
  server.reset();
  EXPECT_EQ(hooks.seen, (std::vector<std::string>{"connect " + id, "gone " + id}));
  end();
}

TEST_P(CapiRequests, AClientAboveItsQuotaIsServedLater) {
  std::mutex mutex;
  std::vector<tolk_request*> open;
  std::atomic<int> arrived{0};
  server_methods.add(
      "keep",
      [&](tolk_request* request) {
        const std::lock_guard lock(mutex);
        open.push_back(request);
        ++arrived;
      },
      TOLK_INLINE);
  server_methods.add_echo(TOLK_INLINE);
  tolk_server_options options{};
  options.most_client_requests = 2;
  listen(options);
  client = connect();
  const auto other = connect();
  const auto block = text_block(std::string(100000, 'x'));
  std::vector<std::uint64_t> numbers;
  tolk_call call = call_of("keep", nullptr, TOLK_FOREVER);
  call.arguments = block.get();
  for (int i = 0; i < 50; ++i) numbers.push_back(tolk_client_start(client.get(), &call));
  while (arrived < 3) std::this_thread::yield();
  for (int i = 0; i < 100; ++i) EXPECT_EQ(call_client(other.get(), "echo", "x").text, "x");
  EXPECT_LT(arrived, 50);
  int answered = 0;
  while (answered < 50) {
    std::vector<tolk_request*> now;
    {
      const std::lock_guard lock(mutex);
      now.swap(open);
    }
    for (tolk_request* const request : now) tolk_request_answer(request, nullptr);
    answered += static_cast<int>(now.size());
    std::this_thread::yield();
  }
  for (const auto number : numbers) {
    EXPECT_EQ(tolk_client_wait(client.get(), number, nullptr, nullptr), TOLK_OK);
  }
  end();
}

}  // namespace
