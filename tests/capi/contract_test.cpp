// Sentences of the header that no other test is about.
#include <cstddef>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "pair.h"
#include "tests/e2e/support/waiting.h"

namespace {

using tolk::test::Answer;
using tolk::test::call_client;
using tolk::test::call_of;
using tolk::test::call_server;
using tolk::test::Done;
using tolk::test::Event;
using tolk::test::eventually;
using tolk::test::Methods;
using tolk::test::Owned;
using tolk::test::Pair;
using tolk::test::text_block;
using tolk::test::text_of;

class CapiContract : public Pair {
 protected:
  // A handler that runs until the test lets it go.
  void add_slow() {
    server_methods.add("slow", [this](tolk_request* request) {
      begun.set();
      may_end.wait();
      over = true;
      tolk_request_answer(request, text_block("done").release());
    });
  }

  Event begun;
  Event may_end;
  std::atomic<bool> over{false};
};
INSTANTIATE_TEST_SUITE_P(All, CapiContract, tolk::test::kAllTransports, tolk::test::transport_name);

TEST(CapiContractBlocks, EncodedBytesStayUntilTheBlockChanges) {
  const Owned<tolk_block> block(tolk_block_new());
  tolk_block_add_none(block.get());
  std::size_t size = 0;
  const void* const first = tolk_block_encode(block.get(), &size);
  const std::size_t first_size = size;
  EXPECT_EQ(tolk_block_encode(block.get(), &size), first);
  EXPECT_EQ(size, first_size);
  tolk_block_add_int(block.get(), 5);
  EXPECT_NE(tolk_block_encode(block.get(), &size), nullptr);
  EXPECT_GT(size, first_size);
}

TEST_P(CapiContract, DetailsKeepTheKindsOfTheirValues) {
  server_methods.add("fail", [](tolk_request* request) {
    const Owned<tolk_block> map(tolk_block_new());
    tolk_block_add_key(map.get(), "x");
    tolk_block_add_uint(map.get(), UINT64_MAX);
    tolk_block* const details = tolk_block_new();
    tolk_block_add_int(details, INT64_MIN);
    tolk_block_add_none(details);
    tolk_block_add_map(details, map.get());
    tolk_request_fail(request, TOLK_FAILED, 0, "no", details);
  });
  start();
  tolk_error* error = nullptr;
  EXPECT_EQ(tolk_client_call(client.get(), "fail", nullptr, 0, nullptr, &error), TOLK_FAILED);
  const tolk_block* const details = tolk_error_details(error);
  EXPECT_EQ(tolk_block_total(details), 3U);
  EXPECT_EQ(tolk_block_int(details, 0), INT64_MIN);
  EXPECT_EQ(tolk_block_kind(details, 1), TOLK_NONE);
  EXPECT_EQ(tolk_block_uint(tolk_block_inner(details, 2), 0), UINT64_MAX);
  tolk_error_free(error);
}

TEST_P(CapiContract, AnAnswerMayReadAsIfThereWereNoMethod) {
  server_methods.add_echo();
  client_methods.add_echo();
  start();
  for (const bool to_server : {true, false}) {
    const Answer answer = to_server
                              ? call_client(client.get(), "echo", "no event: echo")
                              : call_server(server.get(), first_client(), "echo", "no event: echo");
    EXPECT_EQ(answer.status, TOLK_OK) << answer.reason;
    EXPECT_EQ(answer.text, "no event: echo");
  }
}

// The outcome of a call of the client that is freed needs the only worker of the server.
TEST_P(CapiContract, AFreeInAHandlerLeavesAWorkerToOthers) {
  Owned<tolk_client> freed;
  Done done;
  server_methods.add_echo();
  server_methods.add("free", [&](tolk_request* request) {
    may_end.set();
    freed.reset();
    tolk_request_answer(request, nullptr);
  });
  tolk_server_options options{};
  options.workers = 1;
  listen(options);
  client = connect();
  freed = connect();
  Answer inner;
  done.also = [&](const tolk_outcome*) {
    begun.set();
    may_end.wait();
    inner = call_client(client.get(), "echo", "x", 10000);
  };
  const tolk_call call = call_of("echo", &done);
  tolk_client_start(freed.get(), &call);
  ASSERT_TRUE(begun.wait());  // the only worker is free again
  EXPECT_EQ(call_client(client.get(), "free", "", 20000).status, TOLK_OK);
  EXPECT_EQ(inner.status, TOLK_OK) << inner.reason;
  end();
}

TEST_P(CapiContract, AWaitInAnInlineCallbackSaysWhy) {
  server_methods.add_echo();
  add_slow();
  start();
  Done done;
  const tolk_call slow = call_of("slow", nullptr, TOLK_FOREVER);
  const auto kept = tolk_client_start(client.get(), &slow);
  tolk_error* error = nullptr;
  done.also = [&](const tolk_outcome*) {
    EXPECT_EQ(tolk_client_wait(client.get(), kept, nullptr, &error), TOLK_MISUSE);
  };
  tolk_call call = call_of("echo", &done);
  call.flags = TOLK_INLINE;
  tolk_client_start(client.get(), &call);
  done.wait();
  EXPECT_NE(std::string(tolk_error_reason(error)).find("cannot wait"), std::string::npos)
      << tolk_error_reason(error);
  tolk_error_free(error);
  may_end.set();
  EXPECT_EQ(tolk_client_wait(client.get(), kept, nullptr, nullptr), TOLK_OK);
  end();
}

TEST_P(CapiContract, APostToAllThatACloseEndsIsClosed) {
  client_methods.add(
      "block",
      [&](tolk_request* request) {
        begun.set();
        may_end.wait();
        tolk_request_free(request);
      },
      TOLK_INLINE);
  tolk_server_options options{};
  options.most_queued_bytes = 1000000;
  listen(options);
  client = connect();
  const auto block = text_block(std::string(900000, 'x'));
  const auto post = [&](int wait_ms) {
    return tolk_server_post(server.get(), TOLK_ALL, "note", block.get(), wait_ms, nullptr);
  };
  EXPECT_EQ(tolk_server_post(server.get(), TOLK_ALL, "block", nullptr, 0, nullptr), TOLK_OK);
  ASSERT_TRUE(begun.wait());
  tolk_status posted = TOLK_OK;
  while ((posted = post(50)) == TOLK_OK) {
  }
  EXPECT_EQ(posted, TOLK_BUSY);
  // What is queued may still go to the system meanwhile, and makes room.
  std::thread waits([&] {
    while ((posted = post(TOLK_FOREVER)) == TOLK_OK) {
    }
    EXPECT_EQ(posted, TOLK_CLOSED);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));  // it waits now, or is refused
  tolk_server_close(server.get(), 0);
  waits.join();
  may_end.set();
  end();
}

TEST_P(CapiContract, AHandlerOfACallWithDataBeginsAfterOnConnect) {
  struct Tasks {
    std::mutex mutex;
    std::vector<tolk_task*> all;
    std::vector<std::string> seen;
    // The latest first, as an executor of several threads may run them.
    bool run_latest() {
      tolk_task* task = nullptr;
      {
        const std::lock_guard lock(mutex);
        if (all.empty()) return false;
        task = all.back();
        all.pop_back();
      }
      tolk_task_run(task);
      return true;
    }
    std::size_t count() {
      const std::lock_guard lock(mutex);
      return all.size();
    }
  } tasks;
  tolk_method_options with_accept{};
  with_accept.size = sizeof with_accept;
  with_accept.accept = [](void* context, const tolk_request*, std::uint64_t, tolk_sink**) {
    static_cast<Tasks*>(context)->seen.emplace_back("accept");
    return TOLK_OK;
  };
  const auto handler = [](void* context, tolk_request* request) {
    static_cast<Tasks*>(context)->seen.emplace_back("handler");
    tolk_request_answer(request, nullptr);
  };
  ASSERT_EQ(tolk_methods_add(server_methods.get(), "take", handler, &tasks, &with_accept, nullptr),
            TOLK_OK);
  tolk_server_options options{};
  options.context = &tasks;
  options.execute = [](void* context, tolk_task* task) {
    auto& to = *static_cast<Tasks*>(context);
    const std::lock_guard lock(to.mutex);
    to.all.push_back(task);
  };
  options.on_connect = [](void* context, tolk_server*, const tolk_peer*) {
    static_cast<Tasks*>(context)->seen.emplace_back("connect");
  };
  listen(options);
  client = connect();
  Done done;
  tolk_call call = call_of("take", &done);
  call.source = tolk_source_memory("bytes", 5, nullptr, nullptr);
  tolk_client_start(client.get(), &call);
  EXPECT_EQ(call_client(client.get(), "tolk.describe", "").status, TOLK_OK);
  std::thread runs([&] {
    while (done.calls == 0) {
      if (!tasks.run_latest()) std::this_thread::yield();
    }
  });
  done.wait();
  runs.join();
  EXPECT_EQ(done.answer.status, TOLK_OK) << done.answer.reason;
  EXPECT_EQ(tasks.seen, (std::vector<std::string>{"connect", "accept", "handler"}));
  end();
  while (tasks.run_latest()) {
  }
}

TEST_P(CapiContract, TheUsualLimitIsThatOfTheOptions) {
  add_slow();
  listen();
  tolk_client_options options{};
  options.limit_ms = 30;
  client = connect(options);
  EXPECT_EQ(call_client(client.get(), "slow", "").reason, "timed out after 30 ms");
  may_end.set();
  end();
}

TEST_P(CapiContract, AHandlerKnowsTheLimitThatIsLeft) {
  std::atomic<int> left{0};
  server_methods.add("left", [&](tolk_request* request) {
    left = tolk_request_limit_left(request);
    tolk_request_answer(request, nullptr);
  });
  start();
  EXPECT_EQ(call_client(client.get(), "left", "", 20000).status, TOLK_OK);
  EXPECT_GE(left, 1);
  EXPECT_LE(left, 20000);
  EXPECT_EQ(call_client(client.get(), "left", "", TOLK_FOREVER).status, TOLK_OK);
  EXPECT_EQ(left, TOLK_FOREVER);
}

TEST_P(CapiContract, ACallToNobodyIsToldOnce) {
  listen();
  Done done;
  std::size_t left = 7;
  done.also = [&](const tolk_outcome* outcome) { left = outcome->left; };
  tolk_call call = call_of("echo", &done);
  call.client = TOLK_ALL;
  const auto number = tolk_server_start(server.get(), &call);
  done.wait();
  EXPECT_EQ(done.answer.status, TOLK_NOT_CONNECTED);
  EXPECT_EQ(done.number, number);
  EXPECT_EQ(left, 0U);
  EXPECT_EQ(tolk_server_post(server.get(), TOLK_ALL, "echo", nullptr, 0, nullptr), TOLK_OK);
  tolk_call without_done = call_of("echo");
  without_done.client = TOLK_ALL;
  EXPECT_EQ(tolk_server_wait(server.get(), tolk_server_start(server.get(), &without_done), nullptr,
                             nullptr),
            TOLK_MISUSE);
  server.reset();
  EXPECT_EQ(done.calls, 1);
}

TEST_P(CapiContract, NamesOfMethodsAreChecked) {
  const auto drop = [](void*, tolk_request* request) { tolk_request_free(request); };
  const Methods methods;
  for (const char* const name : {"", "retval", "s_c_connect", "tolk.describe"}) {
    EXPECT_EQ(tolk_methods_add(methods.get(), name, drop, nullptr, nullptr, nullptr), TOLK_MISUSE);
    EXPECT_FALSE(tolk_methods_remove(methods.get(), name));
  }
  for (const char* const name : {"once", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(tolk_methods_add(methods.get(), name, drop, nullptr, nullptr, nullptr), TOLK_OK);
    EXPECT_EQ(tolk_methods_add(methods.get(), name, drop, nullptr, nullptr, nullptr), TOLK_MISUSE);
  }
}

TEST_P(CapiContract, MethodsComeAndGoWhileTheServerRuns) {
  start();
  EXPECT_EQ(call_client(client.get(), "echo", "x").status, TOLK_NO_METHOD);
  server_methods.add_echo();
  EXPECT_EQ(call_client(client.get(), "echo", "x").text, "x");
  EXPECT_TRUE(tolk_methods_remove(server_methods.get(), "echo"));
  EXPECT_FALSE(tolk_methods_remove(server_methods.get(), "echo"));
  EXPECT_EQ(call_client(client.get(), "echo", "x").status, TOLK_NO_METHOD);
  server_methods.add(nullptr, [](tolk_request* request) {
    if (text_of(tolk_request_arguments(request)) == "no") {
      return tolk_request_fail(request, TOLK_NO_METHOD, 0, "not here", nullptr);
    }
    tolk_request_answer(request, text_block(tolk_request_method(request)).release());
  });
  EXPECT_EQ(call_client(client.get(), "anything", "").text, "anything");
  EXPECT_EQ(call_client(client.get(), "anything", "no").status, TOLK_NO_METHOD);
  EXPECT_TRUE(tolk_methods_remove(server_methods.get(), nullptr));
  EXPECT_EQ(call_client(client.get(), "anything", "").status, TOLK_NO_METHOD);
}

TEST_P(CapiContract, AResultThatCannotBeSentIsAFailure) {
  server_methods.add("answer", [](tolk_request* request) {
    tolk_block* const block = tolk_block_new();
    tolk_block_add_key(block, "s_c_own");
    tolk_block_add_int(block, 1);
    tolk_request_answer(request, block);
  });
  server_methods.add("large", [](tolk_request* request) {
    tolk_block* const block = tolk_block_new();
    tolk_block_add_bytes_held(block, "", std::size_t{3} << 30, nullptr, nullptr);  // never read
    tolk_request_answer(request, block);
  });
  server_methods.add("fail", [](tolk_request* request) {
    tolk_request_fail(request, TOLK_GONE, 5, "not that", nullptr);
  });
  start();
  const Answer answer = call_client(client.get(), "answer", "");
  EXPECT_EQ(answer.status, TOLK_FAILED);
  EXPECT_NE(answer.reason.find("\"s_c_own\""), std::string::npos) << answer.reason;
  const Answer failure = call_client(client.get(), "fail", "");
  EXPECT_EQ(failure.status, TOLK_FAILED);
  EXPECT_EQ(failure.code, 5);
  EXPECT_EQ(call_client(client.get(), "large", "").reason, "the result is too large");
}

TEST_P(CapiContract, ACloseRefusesCallsOfBothSidesWhileHandlersRun) {
  add_slow();
  server_methods.add_echo();
  client_methods.add_echo();
  start();
  const std::uint64_t id = first_client();
  const tolk_call slow = call_of("slow", nullptr, TOLK_FOREVER);
  const auto number = tolk_client_start(client.get(), &slow);
  ASSERT_TRUE(begun.wait());
  std::thread closes([&] { EXPECT_EQ(tolk_server_close(server.get(), 20000), TOLK_OK); });
  Answer refused;
  EXPECT_TRUE(eventually([&] {
    refused = call_client(client.get(), "echo", "x");
    return refused.status != TOLK_OK;
  }));
  EXPECT_EQ(refused.status, TOLK_GONE);
  EXPECT_EQ(refused.reason, "the peer is closing");
  EXPECT_EQ(call_server(server.get(), id, "echo", "x").status, TOLK_CLOSED);
  EXPECT_EQ(tolk_server_post(server.get(), TOLK_ALL, "echo", nullptr, 0, nullptr), TOLK_CLOSED);
  // The address is another server's meanwhile.
  tolk_server* next = nullptr;
  EXPECT_TRUE(eventually([&] {
    return tolk_server_listen(tolk_server_address(server.get()), nullptr, &next, nullptr) ==
           TOLK_OK;
  }));
  tolk_server_free(next);
  may_end.set();
  closes.join();
  EXPECT_EQ(tolk_client_wait(client.get(), number, nullptr, nullptr), TOLK_OK);
  end();
}

TEST_P(CapiContract, ACloseThatCannotWaitLongerSaysSo) {
  add_slow();
  start();
  ASSERT_EQ(tolk_client_post(client.get(), "slow", nullptr, 0, nullptr), TOLK_OK);
  ASSERT_TRUE(begun.wait());
  EXPECT_EQ(tolk_server_close(server.get(), 20), TOLK_TIMED_OUT);
  EXPECT_EQ(tolk_server_wait_closed(server.get(), 20000), TOLK_OK);
  may_end.set();
  server.reset();
  EXPECT_TRUE(over) << "the free waits for the handler";
}

void count_contract_release(void* count) { ++*static_cast<std::atomic<int>*>(count); }

TEST_P(CapiContract, AContextIsReleasedOnceByWhatFails) {
  std::atomic<int> released{0};
  listen();
  const std::string address = tolk_server_address(server.get());
  tolk_client_options of_client{};
  of_client.size = sizeof of_client;
  of_client.context = &released;
  of_client.free_context = count_contract_release;
  tolk_server_options of_server{};
  of_server.size = sizeof of_server;
  of_server.context = &released;
  of_server.free_context = count_contract_release;
  tolk_client* none = nullptr;
  tolk_server* nothing = nullptr;
  int wanted = 0;
  EXPECT_EQ(tolk_client_connect("nowhere", &of_client, &none, nullptr), TOLK_BAD_ADDRESS);
  EXPECT_EQ(released, ++wanted);
  EXPECT_EQ(tolk_client_connect(address.c_str(), &of_client, nullptr, nullptr), TOLK_MISUSE);
  EXPECT_EQ(released, ++wanted);
  EXPECT_EQ(tolk_server_listen("nowhere", &of_server, &nothing, nullptr), TOLK_BAD_ADDRESS);
  EXPECT_EQ(released, ++wanted);
  of_server.size = 0;
  EXPECT_EQ(tolk_server_listen(address.c_str(), &of_server, &nothing, nullptr), TOLK_MISUSE);
  EXPECT_EQ(released, wanted) << "nothing of the struct is read";
  tolk_method_options of_method{};
  of_method.size = sizeof of_method;
  of_method.free_context = count_contract_release;
  const auto drop = [](void*, tolk_request* request) { tolk_request_free(request); };
  {
    const Methods methods;
    const auto add = [&](const char* name) {
      return tolk_methods_add(methods.get(), name, drop, &released, &of_method, nullptr);
    };
    EXPECT_EQ(add("retval"), TOLK_MISUSE);
    EXPECT_EQ(released, ++wanted);
    EXPECT_EQ(add("m"), TOLK_OK);
    EXPECT_EQ(add("m"), TOLK_MISUSE);
    EXPECT_EQ(released, ++wanted);
    EXPECT_EQ(add("n"), TOLK_OK);
    EXPECT_TRUE(tolk_methods_remove(methods.get(), "n"));
    EXPECT_EQ(released, ++wanted);
  }
  EXPECT_EQ(released, ++wanted);
  server.reset();
  // The loop thread may have the last reference.
  EXPECT_EQ(tolk_client_connect(address.c_str(), &of_client, &none, nullptr), TOLK_NOT_CONNECTED);
  EXPECT_TRUE(eventually([&] { return released == wanted + 1; }));
  ++wanted;
  listen();
  client.reset();
  ASSERT_EQ(tolk_client_connect(tolk_server_address(server.get()), &of_client, &none, nullptr),
            TOLK_OK);
  EXPECT_EQ(released, wanted);
  tolk_client_free(none);
  EXPECT_TRUE(eventually([&] { return released == wanted + 1; }));
}

TEST_P(CapiContract, AnOwnCloseIsNoLossOfTheServer) {
  std::atomic<int> gone{0};
  listen();
  tolk_client_options options{};
  options.context = &gone;
  options.on_gone = [](void* context, tolk_client*, const tolk_error*) {
    ++*static_cast<std::atomic<int>*>(context);
  };
  client = connect(options);
  EXPECT_EQ(tolk_client_close(client.get(), 20000), TOLK_OK);
  client = connect(options);
  client.reset();
  EXPECT_EQ(gone, 0);
}

TEST_P(CapiContract, MembersThatAnOlderHostLacksHaveTheirDefaults) {
  server_methods.add_echo();
  start();
  Done done;
  tolk_call call = call_of("echo", &done);
  call.size = offsetof(tolk_call, done);
  call.flags = TOLK_INLINE;
  const auto number = tolk_client_start(client.get(), &call);
  EXPECT_EQ(tolk_client_wait(client.get(), number, nullptr, nullptr), TOLK_OK);
  EXPECT_EQ(done.calls, 0);
}

TEST_P(CapiContract, ARequestTellsWhoAsks) {
  std::string address;
  std::uint64_t id = 0;
  server_methods.add("who", [&](tolk_request* request) {
    address = tolk_request_peer(request)->address;
    id = tolk_request_peer(request)->client;
    EXPECT_EQ(tolk_request_server(request), server.get());
    EXPECT_EQ(tolk_request_client(request), nullptr);
    tolk_request_answer(request, nullptr);
  });
  client_methods.add("who", [&](tolk_request* request) {
    address = tolk_request_peer(request)->address;
    id = tolk_request_peer(request)->client;
    EXPECT_EQ(tolk_request_client(request), client.get());
    EXPECT_EQ(tolk_request_server(request), nullptr);
    tolk_request_answer(request, nullptr);
  });
  start();
  const std::string listening = tolk_server_address(server.get());
  const bool is_pipe = listening.starts_with("pipe:");
  EXPECT_EQ(call_client(client.get(), "who", "").status, TOLK_OK);
  EXPECT_EQ(id, first_client());
  EXPECT_EQ(address.substr(0, 5), listening.substr(0, 5));
  EXPECT_EQ(address == listening, is_pipe) << address;
  EXPECT_EQ(call_server(server.get(), id, "who", "").status, TOLK_OK);
  EXPECT_EQ(id, 0U);
  EXPECT_EQ(address, listening);
  EXPECT_EQ(tolk_server_port(server.get()) == 0, is_pipe);
  end();
}

TEST_P(CapiContract, ASinkThatARefusalLeavesIsReleased) {
  std::atomic<int> released{0};
  tolk_method_options options{};
  options.size = sizeof options;
  options.accept = [](void* context, const tolk_request*, std::uint64_t, tolk_sink** sink) {
    const auto write = [](void*, const void*, std::size_t) { return true; };
    *sink = tolk_sink_callback(write, context, count_contract_release);
    return TOLK_BUSY;
  };
  const auto never = [](void*, tolk_request* request) {
    ADD_FAILURE();
    tolk_request_free(request);
  };
  ASSERT_EQ(tolk_methods_add(server_methods.get(), "take", never, &released, &options, nullptr),
            TOLK_OK);
  start();
  tolk_call call = call_of("take");
  call.source = tolk_source_memory("bytes", 5, &released, count_contract_release);
  EXPECT_EQ(
      tolk_client_wait(client.get(), tolk_client_start(client.get(), &call), nullptr, nullptr),
      TOLK_BUSY);
  end();
  EXPECT_EQ(released, 2);
}

}  // namespace
