// Large data: both directions, each kind of source and sink, and failures.
#include <tolk/c.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "pair.h"
#include "tests/e2e/support/waiting.h"
#include "transfer_support.h"

namespace {

using tolk::test::are_bytes;
using tolk::test::bytes_at;
using tolk::test::call_of;
using tolk::test::Checker;
using tolk::test::DataCall;
using tolk::test::DataMethod;
using tolk::test::Done;
using tolk::test::Event;
using tolk::test::eventually;
using tolk::test::kPieceOfTransfer;
using tolk::test::make_bytes;
using tolk::test::Maker;
using tolk::test::Owned;
using tolk::test::Pair;
using tolk::test::some_bytes;
using tolk::test::TempFile;
using tolk::test::text_block;
using tolk::test::text_of;

class CapiTransfers : public Pair {
 protected:
  // Each is its handler's until both ends are closed.
  ~CapiTransfers() override { end(); }
  DataMethod method;
};
INSTANTIATE_TEST_SUITE_P(All, CapiTransfers, tolk::test::kAllTransports,
                         tolk::test::transport_name);

TEST_P(CapiTransfers, MemoryIsTheFirstArgumentAndTheOthersFollow) {
  const std::array<std::size_t, 6> sizes{0,
                                         1,
                                         kPieceOfTransfer,
                                         kPieceOfTransfer + 1,
                                         8 * kPieceOfTransfer,
                                         21 * kPieceOfTransfer + 5};
  method.handler = [](tolk_request* request) {
    const tolk_block* const got = tolk_request_arguments(request);
    EXPECT_EQ(tolk_block_total(got), 3U);
    EXPECT_EQ(tolk_block_int(got, 1), std::int64_t{1} << 40);
    EXPECT_STREQ(tolk_block_key(got, 2), "name");
    const std::string bytes = bytes_at(got, 0);
    EXPECT_TRUE(are_bytes(0, bytes.data(), bytes.size()));
    tolk_request_answer(request, text_block(std::to_string(bytes.size())).release());
  };
  method.add_to(server_methods.get(), "take");
  method.add_to(client_methods.get(), "take");
  start();
  for (const std::size_t size : sizes) {
    const std::string bytes = some_bytes(size);
    for (const bool to_server : {true, false}) {
      DataCall call("take");
      call.arguments.reset(tolk_block_new());
      tolk_block_add_int(call.arguments.get(), std::int64_t{1} << 40);
      tolk_block_add_key(call.arguments.get(), "name");
      tolk_block_add_text(call.arguments.get(), "x", TOLK_TO_ZERO);
      call.raw.source = tolk_source_memory(bytes.data(), size, nullptr, nullptr);
      EXPECT_EQ(to_server ? call.run(client.get()) : call.run(server.get(), first_client()),
                TOLK_OK)
          << call.reason;
      EXPECT_EQ(text_of(call.result.get()), std::to_string(size));
      EXPECT_EQ(call.reports.front(), 0U);
      EXPECT_EQ(call.reports.back(), size);
      EXPECT_TRUE(std::is_sorted(call.reports.begin(), call.reports.end()));
    }
  }
}

TEST_P(CapiTransfers, AFileArrivesInAFile) {
  const TempFile from;
  const TempFile to;
  from.put(some_bytes(5 * kPieceOfTransfer + 77));
  std::vector<std::uint64_t> reports;
  method.accept = [&](const tolk_request* request, std::uint64_t total, tolk_sink** sink) {
    EXPECT_EQ(total, 5 * kPieceOfTransfer + 77);
    EXPECT_EQ(text_of(tolk_request_arguments(request)), "name");
    EXPECT_STREQ(tolk_request_method(request), "store");
    *sink = to.sink();
    return TOLK_OK;
  };
  method.progress = [&](std::uint64_t done, std::uint64_t) {
    reports.push_back(done);
    return true;
  };
  method.handler = [&](tolk_request* request) {
    EXPECT_EQ(tolk_block_total(tolk_request_arguments(request)), 1U);
    EXPECT_EQ(to.all(), from.all());
    tolk_request_answer(request, text_block(text_of(tolk_request_arguments(request))).release());
  };
  method.add_to(server_methods.get(), "store");
  start();
  DataCall call("store");
  call.arguments = text_block("name");
  call.raw.source = from.source();
  EXPECT_EQ(call.run(client.get()), TOLK_OK) << call.reason;
  EXPECT_EQ(text_of(call.result.get()), "name");
  EXPECT_EQ(reports.size(), 7U);
  end();
  EXPECT_EQ(to.all(), from.all());
}

TEST_P(CapiTransfers, AnAnswerHasDataFromEachSourceToEachSink) {
  const TempFile from;
  const TempFile to;
  const std::string bytes = some_bytes(9 * kPieceOfTransfer + 3);
  from.put(bytes);
  Maker maker;
  method.handler = [&](tolk_request* request) {
    const std::string how = text_of(tolk_request_arguments(request));
    maker.made = 0;
    tolk_source* const source =
        how == "file"     ? from.source()
        : how == "memory" ? tolk_source_memory(bytes.data(), bytes.size(), nullptr, nullptr)
                          : maker.source(bytes.size());
    tolk_request_answer_data(request, text_block("done").release(), source);
  };
  method.add_to(server_methods.get(), "fetch");
  method.add_to(client_methods.get(), "fetch");
  tolk_server_options options{};
  options.log = [](void*, tolk_level, const char* text) {
    EXPECT_EQ(std::string(text).find(" called fetch"), std::string::npos) << text;
  };
  ASSERT_NO_FATAL_FAILURE(listen(options));
  client = connect();
  for (const char* const how : {"file", "memory", "callback"}) {
    DataCall in_memory("fetch");
    in_memory.arguments = text_block(how);
    EXPECT_EQ(in_memory.run(client.get()), TOLK_OK) << in_memory.reason;
    EXPECT_EQ(tolk_block_total(in_memory.result.get()), 2U);
    EXPECT_EQ(bytes_at(in_memory.result.get(), 0), bytes);
    EXPECT_STREQ(tolk_block_text(in_memory.result.get(), 1, nullptr), "done");
    DataCall in_file("fetch");
    in_file.arguments = text_block(how);
    in_file.raw.sink = to.sink();
    EXPECT_EQ(in_file.run(server.get(), first_client()), TOLK_OK) << in_file.reason;
    EXPECT_EQ(to.all(), bytes);
    EXPECT_EQ(text_of(in_file.result.get()), "done");
    EXPECT_EQ(in_file.reports.front(), 0U);
    EXPECT_EQ(in_file.reports.back(), bytes.size());
    Checker checker;
    DataCall checked("fetch");
    checked.arguments = text_block(how);
    checked.raw.sink = checker.sink();
    EXPECT_EQ(checked.run(client.get()), TOLK_OK) << checked.reason;
    EXPECT_EQ(checker.got, bytes.size());
    EXPECT_TRUE(checker.all_right);
    EXPECT_TRUE(checker.is_released.wait());
  }
  end();  // the server frees its source after the caller has all data
}

TEST_P(CapiTransfers, ACancelAtEachPieceEndsBothEnds) {
  for (std::uint64_t at = 0; at < 12; at += 3) {
    Checker checker;
    DataMethod stored;
    stored.accept = [&](const tolk_request*, std::uint64_t, tolk_sink** sink) {
      *sink = checker.sink();
      return TOLK_OK;
    };
    stored.add_to(server_methods.get(), "store");
    start();
    Maker maker;
    DataCall call("store");
    call.raw.source = maker.source(20 * kPieceOfTransfer);
    call.may_go_on = [&](std::uint64_t done) { return done < at * kPieceOfTransfer; };
    EXPECT_EQ(call.run(client.get()), TOLK_CANCELLED);
    EXPECT_EQ(tolk::test::call_client(client.get(), "nothing", "").status, TOLK_NO_METHOD);
    if (at > 0) {
      EXPECT_TRUE(checker.is_released.wait()) << at;
    }
    end();
    EXPECT_EQ(stored.handled, 0);
    EXPECT_EQ(maker.released, 1);
    EXPECT_EQ(checker.released, at > 0 ? 1 : 0);
    tolk_methods_remove(server_methods.get(), "store");
  }
}

TEST_P(CapiTransfers, TheReceiverMayCancelOrRefuse) {
  method.progress = [](std::uint64_t done, std::uint64_t) { return done < 2 * kPieceOfTransfer; };
  method.add_to(server_methods.get(), "cancels");
  DataMethod refuses;
  refuses.accept = [](const tolk_request*, std::uint64_t, tolk_sink**) {
    return TOLK_WRONG_ARGUMENTS;
  };
  refuses.add_to(server_methods.get(), "refuses");
  start();
  for (const auto& [name, status] :
       {std::pair("cancels", TOLK_CANCELLED), std::pair("refuses", TOLK_WRONG_ARGUMENTS),
        std::pair("unknown", TOLK_NO_METHOD)}) {
    Maker maker;
    DataCall call(name);
    call.raw.source = maker.source(10 * kPieceOfTransfer);
    EXPECT_EQ(call.run(client.get()), status) << name;
    end();
    start();
    EXPECT_EQ(maker.released, 1);
  }
  EXPECT_EQ(method.handled + refuses.handled, 0);
  end();
}

TEST_P(CapiTransfers, AFailingSinkOrSourceEndsTheTransfer) {
  const TempFile to;
  Maker broken;
  Checker full;
  full.fails_at = 3 * kPieceOfTransfer;
  broken.fails_at = 3 * kPieceOfTransfer;
  method.accept = [&](const tolk_request*, std::uint64_t, tolk_sink** sink) {
    *sink = full.sink();
    return TOLK_OK;
  };
  method.add_to(server_methods.get(), "store");
  DataMethod fetch;
  fetch.handler = [&](tolk_request* request) {
    tolk_request_answer_data(request, nullptr, broken.source(20 * kPieceOfTransfer));
  };
  fetch.add_to(server_methods.get(), "fetch");
  start();
  Maker good;
  DataCall store("store");
  store.raw.source = good.source(20 * kPieceOfTransfer);
  EXPECT_EQ(store.run(client.get()), TOLK_FAILED);
  EXPECT_TRUE(full.is_released.wait());
  EXPECT_EQ(good.released, 1);
  DataCall no_source("fetch");
  no_source.raw.source = broken.source(20 * kPieceOfTransfer);
  EXPECT_EQ(no_source.run(client.get()), TOLK_FILE);
  DataCall no_data("fetch");
  no_data.arguments = text_block("broken");
  no_data.raw.sink = to.sink();
  EXPECT_EQ(no_data.run(client.get()), TOLK_FAILED);
  EXPECT_FALSE(to.exists());
  end();
}

TEST_P(CapiTransfers, ASinkOfTheCallerThatFailsIsItsOwnFailure) {
  Maker maker;
  method.handler = [&](tolk_request* request) {
    tolk_request_answer_data(request, nullptr, maker.source(20 * kPieceOfTransfer));
  };
  method.add_to(server_methods.get(), "fetch");
  start();
  Checker full;
  full.fails_at = 2 * kPieceOfTransfer;
  DataCall call("fetch");
  call.raw.sink = full.sink();
  EXPECT_EQ(call.run(client.get()), TOLK_FILE);
  end();
  EXPECT_EQ(maker.released, 1);
  EXPECT_EQ(full.released, 1);
}

TEST_P(CapiTransfers, AReceiverThatLeavesEndsTheTransfer) {
  // Nothing orders what the progress reads and the end of the server.
  tolk_server* leaves = nullptr;
  std::uint64_t left = 0;
  method.progress = [&](std::uint64_t done, std::uint64_t) {
    if (done == 2 * kPieceOfTransfer) tolk_server_disconnect(leaves, left);
    return true;
  };
  method.add_to(server_methods.get(), "leave");
  start();
  leaves = server.get();
  left = first_client();
  Maker maker;
  DataCall call("leave");
  call.raw.source = maker.source(1000 * kPieceOfTransfer);
  EXPECT_EQ(call.run(client.get()), TOLK_GONE);
  end();
  EXPECT_EQ(maker.released, 1);
  EXPECT_LT(maker.made, 1000 * kPieceOfTransfer);
  EXPECT_EQ(method.handled, 0);
}

TEST_P(CapiTransfers, TheHostCancelsACallWhoseDataAreUnderWay) {
  Checker checker;
  Event half;
  method.accept = [&](const tolk_request*, std::uint64_t, tolk_sink** sink) {
    *sink = checker.sink();
    return TOLK_OK;
  };
  method.progress = [&](std::uint64_t done, std::uint64_t total) {
    if (done >= total / 2) half.set();
    return true;
  };
  method.add_to(server_methods.get(), "store");
  start();
  Maker maker;
  DataCall call("store");
  call.raw.source = maker.source(40 * kPieceOfTransfer);
  call.may_go_on = [&](std::uint64_t done) { return done < 20 * kPieceOfTransfer || half.wait(); };
  const std::uint64_t number = tolk_client_start(client.get(), &call.raw);
  EXPECT_TRUE(half.wait());
  if (tolk_client_cancel(client.get(), number)) {
    EXPECT_TRUE(checker.is_released.wait());
  }
  end();
  EXPECT_EQ(maker.released, 1);
  EXPECT_EQ(checker.released, 1);
}

TEST_P(CapiTransfers, TheLimitCountsFromTheLastPieceAndAPieceHasItsOwn) {
  tolk_request* kept = nullptr;
  Event may_accept;
  method.handler = [&](tolk_request* request) { kept = request; };
  method.add_to(server_methods.get(), "silent");
  DataMethod slow;
  slow.accept = [&](const tolk_request*, std::uint64_t, tolk_sink**) {
    may_accept.wait();
    return TOLK_OK;
  };
  slow.add_to(server_methods.get(), "slow");
  start();
  const std::string bytes = some_bytes(3 * kPieceOfTransfer);
  for (const bool is_slow : {false, true}) {
    DataCall call(is_slow ? "slow" : "silent");
    call.raw.source = tolk_source_memory(bytes.data(), bytes.size(), nullptr, nullptr);
    call.raw.limit_ms = is_slow ? 20000 : 60;
    call.raw.piece_limit_ms = is_slow ? 60 : 20000;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(call.run(client.get()), TOLK_TIMED_OUT);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, tolk::test::kPatience / 2);
  }
  may_accept.set();
  end();
  tolk_request_free(kept);  // null if the client has given up before the handler began
  EXPECT_EQ(slow.handled, 0);
}

// The pieces come only while the client is read.
TEST_P(CapiTransfers, DataUnderWayAreReadAboveTheQuotaOfRequests) {
  std::atomic<int> begun{0};
  Event both;
  method.accept = [&](const tolk_request*, std::uint64_t, tolk_sink**) {
    if (++begun == 2) both.set();
    return TOLK_OK;
  };
  method.add_to(server_methods.get(), "take");
  tolk_server_options options{};
  options.most_client_requests = 1;
  listen(options);
  client = connect();
  const auto read = [](void* event, void* to, std::size_t capacity) {
    static_cast<Event*>(event)->wait();
    make_bytes(0, static_cast<char*>(to), capacity);
    return capacity;
  };
  DataCall first("take");
  DataCall second("take");
  std::vector<std::uint64_t> numbers;
  for (DataCall* const call : {&first, &second}) {
    call->raw.source = tolk_source_callback(3 * kPieceOfTransfer, read, &both, nullptr);
    numbers.push_back(tolk_client_start(client.get(), &call->raw));
  }
  for (const std::uint64_t number : numbers) {
    EXPECT_EQ(tolk_client_wait(client.get(), number, nullptr, nullptr), TOLK_OK);
  }
  end();
  EXPECT_EQ(method.handled, 2);
}

TEST_P(CapiTransfers, TooMuchWithoutASinkIsRefused) {
  method.add_to(server_methods.get(), "take");
  DataMethod fetch;
  Maker too_much;
  fetch.handler = [&](tolk_request* request) {
    tolk_request_answer_data(request, nullptr, too_much.source(2 << 20));
  };
  fetch.add_to(server_methods.get(), "fetch");
  tolk_server_options options{};
  options.most_data_bytes = 1 << 20;
  listen(options);
  tolk_client_options mine{};
  mine.most_data_bytes = 1 << 20;
  client = connect(mine);
  Maker maker;
  DataCall call("take");
  call.raw.source = maker.source((1 << 20) + 1);
  EXPECT_EQ(call.run(client.get()), TOLK_TOO_LARGE);
  DataCall back("fetch");
  EXPECT_EQ(back.run(client.get()), TOLK_TOO_LARGE);
  end();
  EXPECT_EQ(method.handled, 0);
}

// What a request has counts until its end.
TEST_P(CapiTransfers, DataInMemoryHaveOneBoundForAllTransfersOfAPeer) {
  constexpr std::size_t kMost = 4 * kPieceOfTransfer;
  std::atomic<tolk_request*> kept{nullptr};
  method.handler = [&](tolk_request* request) { kept = request; };
  method.add_to(server_methods.get(), "keep");
  DataMethod fetch;
  const std::string bytes = some_bytes(3 * kPieceOfTransfer);
  fetch.handler = [&](tolk_request* request) {
    tolk_request_answer_data(request, nullptr,
                             tolk_source_memory(bytes.data(), bytes.size(), nullptr, nullptr));
  };
  fetch.add_to(server_methods.get(), "fetch");
  tolk_server_options options{};
  options.most_data_bytes = kMost;
  listen(options);
  tolk_client_options mine{};
  mine.most_data_bytes = kMost;
  client = connect(mine);
  for (int round = 0; round < 3; ++round) {
    DataCall keeps("keep");
    keeps.raw.source = tolk_source_memory(bytes.data(), bytes.size(), nullptr, nullptr);
    keeps.raw.limit_ms = TOLK_FOREVER;
    const auto number = tolk_client_start(client.get(), &keeps.raw);
    ASSERT_TRUE(eventually([&] { return kept != nullptr; }));
    DataCall refused("keep");
    refused.raw.source = tolk_source_memory(bytes.data(), bytes.size(), nullptr, nullptr);
    EXPECT_EQ(refused.run(client.get()), TOLK_BUSY);
    EXPECT_EQ(refused.reason, "too many bytes of data are under way");
    tolk_request_answer(kept.exchange(nullptr), nullptr);
    EXPECT_EQ(tolk_client_wait(client.get(), number, nullptr, nullptr), TOLK_OK);
  }
  // Nobody reads the second one's answer before the first one's has arrived.
  DataCall first("fetch");
  first.raw.limit_ms = TOLK_FOREVER;
  tolk_status second = TOLK_OK;
  first.may_go_on = [&](std::uint64_t done) {
    if (done == kPieceOfTransfer) second = DataCall("fetch").run(client.get());
    return true;
  };
  EXPECT_EQ(first.run(client.get()), TOLK_OK) << first.reason;
  EXPECT_EQ(second, TOLK_BUSY);
  EXPECT_EQ(DataCall("fetch").run(client.get()), TOLK_OK);
  end();
}

// A host that waits on the only thread of its executor.
TEST_P(CapiTransfers, DataWithoutCallbacksNeedNoExecutor) {
  method.add_to(server_methods.get(), "take");
  ASSERT_NO_FATAL_FAILURE(listen());
  tolk_client_options options{};
  options.execute = [](void*, tolk_task* task) {
    ADD_FAILURE() << "the executor got a task";
    tolk_task_run(task);
  };
  client = connect(options);
  const std::string bytes = some_bytes(3 * kPieceOfTransfer);
  DataCall call("take");
  call.raw.progress = nullptr;
  call.raw.source = tolk_source_memory(bytes.data(), bytes.size(), nullptr, nullptr);
  EXPECT_EQ(call.run(client.get()), TOLK_OK) << call.reason;
  end();
}

// A step that waits for the executor does not hold up the end of its call.
TEST_P(CapiTransfers, AWaitOnTheExecutorsThreadEndsWithTheCall) {
  method.add_to(server_methods.get(), "take");
  ASSERT_NO_FATAL_FAILURE(listen());
  std::vector<tolk_task*> tasks;
  tolk_client_options options{};
  options.context = &tasks;
  options.execute = [](void* kept, tolk_task* task) {
    static_cast<std::vector<tolk_task*>*>(kept)->push_back(task);
  };
  client = connect(options);
  Maker maker;
  DataCall call("take");
  call.raw.source = maker.source(3 * kPieceOfTransfer);
  const std::uint64_t number = tolk_client_start(client.get(), &call.raw);
  EXPECT_TRUE(tolk_client_cancel(client.get(), number));
  EXPECT_EQ(tolk_client_wait(client.get(), number, nullptr, nullptr), TOLK_CANCELLED);
  EXPECT_EQ(maker.released, 1);
  for (tolk_task* const task : tasks) tolk_task_run(task);
  EXPECT_EQ(maker.made, 0U);
  EXPECT_TRUE(call.reports.empty());
  end();
}

// The context of a call is the host's again when a wait for it returns.
TEST_P(CapiTransfers, AWaitThatTimesOutReturnsAfterTheProgressCallback) {
  Event begun;
  Event may_end;
  Event returned;
  // Nobody confirms a piece before the limit has passed: that would move it.
  method.accept = [&](const tolk_request*, std::uint64_t, tolk_sink**) {
    returned.wait();
    return TOLK_OK;
  };
  method.add_to(server_methods.get(), "take");
  start();
  std::atomic<bool> has_ended{false};
  DataCall call("take");
  call.raw.source = tolk_source_memory("bytes", 5, nullptr, nullptr);
  call.raw.piece_limit_ms = 20;
  call.may_go_on = [&](std::uint64_t) {
    begun.set();
    may_end.wait();
    has_ended = true;
    return true;
  };
  std::thread waiting([&] {
    EXPECT_EQ(call.run(client.get()), TOLK_TIMED_OUT);
    EXPECT_TRUE(has_ended);
    returned.set();
  });
  EXPECT_TRUE(begun.wait());
  std::this_thread::sleep_for(std::chrono::milliseconds(60));  // beyond the limit
  may_end.set();
  waiting.join();
  end();
}

TEST_P(CapiTransfers, EightGoSideBySide) {
  std::array<Checker, 8> checkers;
  method.accept = [&](const tolk_request* request, std::uint64_t, tolk_sink** sink) {
    *sink = checkers[static_cast<std::size_t>(tolk_block_int(tolk_request_arguments(request), 0))]
                .sink();
    return TOLK_OK;
  };
  method.add_to(server_methods.get(), "store");
  start();
  std::array<Maker, 8> makers;
  std::array<Done, 8> done;
  for (std::size_t i = 0; i < 8; ++i) {
    const Owned<tolk_block> number(tolk_block_new());
    tolk_block_add_int(number.get(), static_cast<std::int64_t>(i));
    tolk_call call = call_of("store", &done[i]);
    call.arguments = number.get();
    call.source = makers[i].source(30 * kPieceOfTransfer + i);
    tolk_client_start(client.get(), &call);
  }
  for (std::size_t i = 0; i < 8; ++i) {
    done[i].wait();
    EXPECT_EQ(done[i].answer.status, TOLK_OK) << done[i].answer.reason;
    EXPECT_EQ(checkers[i].got, 30 * kPieceOfTransfer + i);
    EXPECT_TRUE(checkers[i].all_right);
  }
  end();
}

}  // namespace
