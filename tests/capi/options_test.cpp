// What the options of clients and servers say.
#include <atomic>
#include <chrono>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>

#include "pair.h"
#include "tests/e2e/support/waiting.h"

namespace {

using tolk::test::call_client;
using tolk::test::call_of;
using tolk::test::Done;
using tolk::test::Event;
using tolk::test::eventually;
using tolk::test::Owned;
using tolk::test::Pair;
using tolk::test::text_block;
using Clock = std::chrono::steady_clock;

class CapiOptions : public Pair {};
INSTANTIATE_TEST_SUITE_P(All, CapiOptions, tolk::test::kAllTransports, tolk::test::transport_name);

void expect_misuse_of(const std::string& what, tolk_status status, tolk_error* error) {
  EXPECT_EQ(status, TOLK_MISUSE) << what;
  const std::string reason = tolk_error_reason(error);
  EXPECT_NE(reason.find("the size of " + what + " is 0"), std::string::npos) << reason;
  tolk_error_free(error);
}

// It would be read as one of zeros otherwise, and the rest of it silently ignored.
TEST_P(CapiOptions, AStructWithoutItsSizeIsMisuse) {
  listen();
  client = connect();
  const char* const address = tolk_server_address(server.get());
  const tolk_client_options client_options{};
  const tolk_server_options server_options{};
  const tolk_method_options method_options{};
  const tolk_call call{};
  tolk_error* error = nullptr;
  tolk_client* no_client = nullptr;
  tolk_server* no_server = nullptr;
  tolk_status status = tolk_client_connect(address, &client_options, &no_client, &error);
  expect_misuse_of("tolk_client_options", status, error);
  EXPECT_EQ(no_client, nullptr);
  status = tolk_server_listen("tcp4:127.0.0.1:0", &server_options, &no_server, &error);
  expect_misuse_of("tolk_server_options", status, error);
  EXPECT_EQ(no_server, nullptr);
  tolk_methods* const methods = tolk_methods_new();
  const auto drop = [](void*, tolk_request* request) { tolk_request_free(request); };
  status = tolk_methods_add(methods, "m", drop, nullptr, &method_options, &error);
  expect_misuse_of("tolk_method_options", status, error);
  EXPECT_FALSE(tolk_methods_remove(methods, "m"));
  tolk_methods_free(methods);
  status = tolk_client_wait(client.get(), tolk_client_start(client.get(), &call), nullptr, &error);
  expect_misuse_of("tolk_call", status, error);
  status = tolk_server_wait(server.get(), tolk_server_start(server.get(), &call), nullptr, &error);
  expect_misuse_of("tolk_call", status, error);
}

TEST_P(CapiOptions, AReservedKeyIsNamedByTheCallThatFails) {
  listen();
  client = connect();
  tolk_block* const block = tolk_block_new();
  tolk_block_add_key(block, "tolk.limit");
  tolk_block_add_int(block, 1);
  tolk_error* error = nullptr;
  const auto expect_named = [&](tolk_status status) {
    EXPECT_EQ(status, TOLK_MISUSE);
    EXPECT_NE(std::string(tolk_error_reason(error)).find("\"tolk.limit\""), std::string::npos);
    tolk_error_free(error);
  };
  expect_named(tolk_client_call(client.get(), "echo", block, 0, nullptr, &error));
  expect_named(tolk_client_post(client.get(), "echo", block, 0, &error));
  tolk_block_free(block);
}

struct LogLines {
  std::mutex mutex;
  std::string text;
  tolk_client* client = nullptr;
  tolk_status call_in_log = TOLK_OK;

  static void add(void* context, tolk_level level, const char* text) {
    auto& self = *static_cast<LogLines*>(context);
    const std::lock_guard lock(self.mutex);
    self.text += std::to_string(level) + " " + text + "\n";
    if (self.client == nullptr) return;
    self.call_in_log =
        tolk_client_call(std::exchange(self.client, nullptr), "echo", nullptr, 0, nullptr, nullptr);
  }
  bool has(const std::string& part) {
    const std::lock_guard lock(mutex);
    return text.find(part) != std::string::npos;
  }
};

TEST_P(CapiOptions, TheLogTellsWhatHappens) {
  LogLines log;
  server_methods.add("fail", [](tolk_request* request) {
    tolk_request_fail(request, TOLK_FAILED, 1, "no such thing", nullptr);
  });
  tolk_server_options options{};
  options.context = &log;
  options.log = LogLines::add;
  options.most_clients = 1;
  listen(options);
  client = connect();
  const std::string id = std::to_string(first_client());
  call_client(client.get(), "fail", "");
  call_client(client.get(), "unknown", "");
  tolk_client* second = nullptr;
  EXPECT_NE(tolk_client_connect(tolk_server_address(server.get()), nullptr, &second, nullptr),
            TOLK_OK);
  client.reset();
  server.reset();
  EXPECT_TRUE(log.has(": listening\n")) << log.text;
  EXPECT_TRUE(log.has("1 client " + id + " connected from ")) << log.text;
  EXPECT_TRUE(log.has("1 client " + id + " called fail: failed, no such thing\n")) << log.text;
  EXPECT_TRUE(log.has("1 client " + id + " called unknown, refused: ")) << log.text;
  EXPECT_TRUE(log.has("1 client " + id + " has gone\n")) << log.text;
  EXPECT_TRUE(log.has(": refused a client, there are too many\n")) << log.text;
}

TEST_P(CapiOptions, APeersTextAddsNoLinesToTheLog) {
  LogLines log;
  server_methods.add("fail", [](tolk_request* request) {
    tolk_request_fail(request, TOLK_FAILED, 1, "one\n1 two\r\n1 three", nullptr);
  });
  tolk_server_options options{};
  options.context = &log;
  options.log = LogLines::add;
  listen(options);
  client = connect();
  EXPECT_EQ(call_client(client.get(), "fail", "").reason, "one\n1 two\r\n1 three");
  call_client(client.get(), "no\n1 such", "");
  end();
  EXPECT_TRUE(log.has(": failed, one 1 two  1 three\n")) << log.text;
  EXPECT_TRUE(log.has(" called no 1 such, refused: ")) << log.text;
}

TEST_P(CapiOptions, NothingWaitsInTheLog) {
  LogLines log;
  server_methods.add_echo();
  client_methods.add("fail", [](tolk_request* request) { tolk_request_free(request); });
  listen();
  tolk_client_options options{};
  options.context = &log;
  options.log = LogLines::add;
  client = connect(options);
  EXPECT_TRUE(log.has(": connected\n"));
  log.client = client.get();
  tolk::test::call_server(server.get(), first_client(), "fail", "");
  EXPECT_EQ(log.call_in_log, TOLK_MISUSE);
  end();
}

// The line comes from a callback, or from the loop thread.
TEST_P(CapiOptions, AClientMayBeClosedAndFreedInItsLog) {
  struct Log {
    Owned<tolk_client> client;
    std::atomic<tolk_status> closed{TOLK_BUSY};
    std::atomic<int> released{0};
  };
  const auto free_at_failure = [](void* context, tolk_level, const char* text) {
    auto& self = *static_cast<Log*>(context);
    const std::string line = text;
    const bool is_it =
        line.find(" failed") != std::string::npos || line.find(", refused") != std::string::npos;
    if (!is_it) return;
    if (const auto freed = std::exchange(self.client, nullptr)) {
      self.closed = tolk_client_close(freed.get(), TOLK_FOREVER);
    }
  };
  const auto fail = [](tolk_request* request) {
    tolk_request_fail(request, TOLK_FAILED, 1, "on purpose", nullptr);
  };
  client_methods.add("fail", fail);
  client_methods.add("fail inline", fail, TOLK_INLINE);
  listen();
  for (const char* const method : {"fail", "fail inline", "unknown"}) {
    Log log;
    tolk_client_options options{};
    options.context = &log;
    options.log = free_at_failure;
    options.free_context = [](void* context) { ++static_cast<Log*>(context)->released; };
    log.client = connect(options);
    ASSERT_TRUE(eventually([&] { return tolk_server_clients(server.get(), nullptr, 0) == 1; }));
    ASSERT_EQ(tolk_server_post(server.get(), first_client(), method, nullptr, 0, nullptr), TOLK_OK);
    EXPECT_TRUE(eventually([&] { return log.released == 1; })) << method;
    EXPECT_EQ(log.closed, TOLK_OK);
    ASSERT_TRUE(eventually([&] { return tolk_server_clients(server.get(), nullptr, 0) == 0; }));
  }
}

TEST_P(CapiOptions, AnExecutorMayFreeItsClient) {
  struct Executor {
    Owned<tolk_client> client;
    tolk_task* task = nullptr;
    std::atomic<int> released{0};
  } executor;
  server_methods.add_echo();
  listen();
  tolk_client_options options{};
  options.context = &executor;
  options.execute = [](void* context, tolk_task* task) {
    auto& self = *static_cast<Executor*>(context);
    self.task = task;
    self.client.reset();
  };
  options.free_context = [](void* context) { ++static_cast<Executor*>(context)->released; };
  executor.client = connect(options);
  Done done;
  const tolk_call call = call_of("echo", &done);
  tolk_client_start(executor.client.get(), &call);
  done.wait();
  EXPECT_EQ(done.answer.status, TOLK_OK);
  ASSERT_TRUE(eventually([&] { return tolk_server_clients(server.get(), nullptr, 0) == 0; }));
  EXPECT_EQ(executor.released, 0) << "the task is still the host's";
  tolk_task_run(executor.task);
  EXPECT_TRUE(eventually([&] { return executor.released == 1; }));
  EXPECT_EQ(done.calls, 1);
}

TEST_P(CapiOptions, NoIdIsUsedAgain) {
  server_methods.add_echo(TOLK_INLINE);
  std::set<std::uint64_t> clients;
  std::set<std::uint64_t> calls;
  std::uint64_t before = 0;
  for (int round = 0; round < 10; ++round) {
    if (round % 5 == 0) listen();  // another server has other ids too
    client = connect();
    const std::uint64_t id = first_client();
    EXPECT_TRUE(clients.insert(id).second) << id;
    for (int i = 0; i < 10; ++i) {
      const tolk_call call = call_of("echo");
      const std::uint64_t number = tolk_client_start(client.get(), &call);
      EXPECT_TRUE(calls.insert(number).second) << number;
      EXPECT_FALSE(tolk_client_cancel(client.get(), before));
      EXPECT_EQ(tolk_client_wait(client.get(), number, nullptr, nullptr), TOLK_OK);
      before = number;
    }
    client.reset();
    ASSERT_TRUE(eventually([&] { return tolk_server_clients(server.get(), nullptr, 0) == 0; }));
    EXPECT_FALSE(tolk_server_disconnect(server.get(), id));
  }
}

TEST_P(CapiOptions, PatienceIsNotExceeded) {
  listen();
  const std::string address = tolk_server_address(server.get());
  server.reset();
  tolk_client_options options{};
  options.size = sizeof options;
  options.patience_ms = 50;
  tolk_client* none = nullptr;
  const auto begin = Clock::now();
  EXPECT_EQ(tolk_client_connect(address.c_str(), &options, &none, nullptr), TOLK_NOT_CONNECTED);
  EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(50));
  EXPECT_LT(Clock::now() - begin, tolk::test::kPatience / 2);
}

TEST_P(CapiOptions, APatientClientFindsALaterServer) {
  listen();
  const std::string address = tolk_server_address(server.get());
  server.reset();
  tolk_client* made = nullptr;
  std::thread connects([&] {
    tolk_client_options options{};
    options.size = sizeof options;
    options.patience_ms = 20000;
    EXPECT_EQ(tolk_client_connect(address.c_str(), &options, &made, nullptr), TOLK_OK);
  });
  tolk_server* later = nullptr;
  EXPECT_EQ(tolk_server_listen(address.c_str(), nullptr, &later, nullptr), TOLK_OK);
  server.reset(later);
  connects.join();
  client.reset(made);
}

// The loop of the server does not read while its handler waits.
TEST_P(CapiOptions, PostsWaitForRoomOnlyAsLongAsTheySay) {
  Event may_read;
  Event blocked;
  server_methods.add(
      "block",
      [&](tolk_request* request) {
        blocked.set();
        may_read.wait();
        tolk_request_free(request);
      },
      TOLK_INLINE);
  server_methods.add("note", [](tolk_request* request) { tolk_request_free(request); });
  server_methods.add_echo(TOLK_INLINE);
  listen();
  tolk_client_options options{};
  options.most_queued_bytes = 1000000;
  client = connect(options);
  Done done;
  tolk_status in_callback = TOLK_OK;
  const auto block = text_block(std::string(900000, 'x'));
  const auto post = [&](int wait_ms) {
    return tolk_client_post(client.get(), "note", block.get(), wait_ms, nullptr);
  };
  done.also = [&](const tolk_outcome*) {
    while ((in_callback = post(TOLK_FOREVER)) == TOLK_OK) {
    }
  };
  tolk_call call = call_of("keep", &done, TOLK_FOREVER);
  call.flags = TOLK_INLINE;
  EXPECT_EQ(tolk_client_post(client.get(), "block", nullptr, 0, nullptr), TOLK_OK);
  ASSERT_TRUE(blocked.wait());
  const auto number = tolk_client_start(client.get(), &call);
  // What is queued may still go to the system meanwhile, and makes room, also after this loop.
  auto begin = Clock::now();
  tolk_status posted = TOLK_OK;
  while ((posted = post(50)) == TOLK_OK) begin = Clock::now();
  EXPECT_EQ(posted, TOLK_BUSY);
  EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(50));
  EXPECT_TRUE(tolk_client_cancel(client.get(), number));
  done.wait();
  EXPECT_EQ(in_callback, TOLK_MISUSE);
  std::thread waits([&] { EXPECT_EQ(post(TOLK_FOREVER), TOLK_OK); });
  may_read.set();
  waits.join();
  end();
}

}  // namespace
