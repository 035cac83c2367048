// How clients and servers end.
#include <chrono>
#include <string>
#include <thread>

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

class CapiEndings : public Pair {};
INSTANTIATE_TEST_SUITE_P(All, CapiEndings, tolk::test::kAllTransports, tolk::test::transport_name);

tolk_call never_ending(Done& done) { return call_of("keep", &done, TOLK_FOREVER); }

// Keeps requests until the end.
struct Kept {
  std::vector<tolk_request*> requests;
  Event has_one;
  tolk::test::Methods::Handler handler() {
    return [this](tolk_request* request) {
      requests.push_back(request);
      has_one.set();
    };
  }
  ~Kept() {
    for (tolk_request* const request : requests) tolk_request_free(request);
  }
};

TEST_P(CapiEndings, NobodyListens) {
  listen();
  const std::string address = tolk_server_address(server.get());
  server.reset();
  tolk_client* none = nullptr;
  tolk_error* error = nullptr;
  EXPECT_EQ(tolk_client_connect(address.c_str(), nullptr, &none, &error), TOLK_NOT_CONNECTED);
  EXPECT_EQ(none, nullptr);
  EXPECT_EQ(tolk_error_address(error), address);
  EXPECT_STREQ(tolk_error_peer(error), "");
  EXPECT_STREQ(tolk_error_reason(error), "nobody listens there");
  tolk_error_free(error);
}

class CapiAddresses : public Pair {};
INSTANTIATE_TEST_SUITE_P(All, CapiAddresses,
                         testing::ValuesIn(tolk::test::addresses_of_one_server()),
                         tolk::test::transport_name);

TEST_P(CapiAddresses, HaveOneServer) {
  listen();
  tolk_server* none = nullptr;
  EXPECT_EQ(tolk_server_listen(tolk_server_address(server.get()), nullptr, &none, nullptr),
            TOLK_CANNOT_LISTEN);
  EXPECT_EQ(tolk_server_listen("nonsense", nullptr, &none, nullptr), TOLK_BAD_ADDRESS);
}

TEST_P(CapiEndings, AClosedClientRefusesCallsAndEndsThoseUnderWay) {
  Kept kept;
  server_methods.add("keep", kept.handler(), TOLK_INLINE);
  start();
  Done done;
  const tolk_call call = never_ending(done);
  tolk_client_start(client.get(), &call);
  kept.has_one.wait();
  EXPECT_EQ(tolk_client_close(client.get(), 20000), TOLK_OK);
  done.wait();
  EXPECT_EQ(done.answer.status, TOLK_CLOSED);
  EXPECT_EQ(call_client(client.get(), "keep", "").status, TOLK_CLOSED);
  EXPECT_EQ(tolk_client_post(client.get(), "keep", nullptr, 0, nullptr), TOLK_CLOSED);
  EXPECT_EQ(tolk_client_close(client.get(), 20000), TOLK_OK);
  end();
}

TEST_P(CapiEndings, AServersEndIsGoneForItsClients) {
  struct Gone {
    Event happened;
    tolk_status status = TOLK_OK;
  } gone;
  Kept kept;
  server_methods.add("keep", kept.handler(), TOLK_INLINE);
  listen();
  tolk_client_options options{};
  options.context = &gone;
  options.on_gone = [](void* context, tolk_client*, const tolk_error* why) {
    static_cast<Gone*>(context)->status = tolk_error_status(why);
    static_cast<Gone*>(context)->happened.set();
  };
  client = connect(options);
  Done done;
  const tolk_call call = never_ending(done);
  tolk_client_start(client.get(), &call);
  kept.has_one.wait();
  server.reset();
  done.wait();
  EXPECT_EQ(done.answer.status, TOLK_GONE);
  gone.happened.wait();
  EXPECT_EQ(gone.status, TOLK_GONE);
  EXPECT_EQ(call_client(client.get(), "keep", "").status, TOLK_GONE);
  EXPECT_EQ(tolk_request_state(kept.requests.front()), TOLK_CLOSED);
  end();
}

// Requests that nobody answers. The caller of one has a limit.
class CapiRequestStates : public Pair {
 protected:
  static constexpr int kLimitMs = 50;
  static constexpr std::chrono::milliseconds kLimit{kLimitMs};

  // A request may arrive until both ends are closed.
  ~CapiRequestStates() override { end(); }

  void start_calls(bool of_server) {
    tolk::test::Methods& methods = of_server ? client_methods : server_methods;
    methods.add("limited", limited_.handler(), TOLK_INLINE);
    methods.add("endless", endless_.handler(), TOLK_INLINE);
    start();
    begin_ = Clock::now();
    for (tolk_call call :
         {call_of("endless", nullptr, TOLK_FOREVER), call_of("limited", nullptr, kLimitMs)}) {
      call.client = first_client();
      if (of_server) {
        tolk_server_start(server.get(), &call);
      } else {
        tolk_client_start(client.get(), &call);
      }
    }
    ASSERT_TRUE(limited_.has_one.wait());
    ASSERT_TRUE(endless_.has_one.wait());
  }
  tolk_status limited() const { return tolk_request_state(limited_.requests.front()); }
  tolk_status endless() const { return tolk_request_state(endless_.requests.front()); }
  bool are_gone() const { return limited() == TOLK_GONE && endless() == TOLK_GONE; }

  void expect_timed_out() {
    EXPECT_TRUE(eventually([&] { return limited() != TOLK_OK; }));
    EXPECT_GE(Clock::now() - begin_, kLimit);
    EXPECT_EQ(limited(), TOLK_TIMED_OUT);
    EXPECT_EQ(endless(), TOLK_OK);
  }
  // The limit, and the end of the object that has the requests, come later. `close` closes that.
  template <class Close>
  void expect_gone_for_good(const Close& close) {
    EXPECT_TRUE(eventually([&] { return endless() != TOLK_OK; }));
    EXPECT_EQ(endless(), TOLK_GONE);
    EXPECT_TRUE(eventually([&] { return are_gone(); }));
    bool always = true;
    for (const auto now = Clock::now(); Clock::now() - now <= 2 * kLimit;) {
      always = always && are_gone();
    }
    EXPECT_TRUE(always);
    close();
    EXPECT_TRUE(are_gone());
    end();
    EXPECT_TRUE(are_gone());
  }

 private:
  Kept limited_;
  Kept endless_;
  Clock::time_point begin_;
};
INSTANTIATE_TEST_SUITE_P(All, CapiRequestStates, tolk::test::kAllTransports,
                         tolk::test::transport_name);

TEST_P(CapiRequestStates, AClientsLimitMakesItsRequestTimedOut) {
  ASSERT_NO_FATAL_FAILURE(start_calls(false));
  expect_timed_out();
}

TEST_P(CapiRequestStates, AServersLimitMakesItsRequestTimedOut) {
  ASSERT_NO_FATAL_FAILURE(start_calls(true));
  expect_timed_out();
}

TEST_P(CapiRequestStates, AClientsEndMakesItsRequestsGoneForGood) {
  ASSERT_NO_FATAL_FAILURE(start_calls(false));
  client.reset();
  expect_gone_for_good([&] { EXPECT_EQ(tolk_server_close(server.get(), 20000), TOLK_OK); });
}

TEST_P(CapiRequestStates, AServersEndMakesItsRequestsGoneForGood) {
  ASSERT_NO_FATAL_FAILURE(start_calls(true));
  server.reset();
  expect_gone_for_good([&] { EXPECT_EQ(tolk_client_close(client.get(), 20000), TOLK_OK); });
}

TEST_P(CapiRequestStates, AClientsEndMakesItsPostsGoneForGood) {
  Kept posted;
  server_methods.add("posted", posted.handler(), TOLK_INLINE);
  start();
  ASSERT_EQ(tolk_client_post(client.get(), "posted", nullptr, 0, nullptr), TOLK_OK);
  ASSERT_TRUE(posted.has_one.wait());
  client.reset();
  const auto state = [&] { return tolk_request_state(posted.requests.front()); };
  EXPECT_TRUE(eventually([&] { return state() != TOLK_OK; }));
  EXPECT_EQ(state(), TOLK_GONE);
  EXPECT_EQ(tolk_server_close(server.get(), 20000), TOLK_OK);
  EXPECT_EQ(state(), TOLK_GONE);
  end();
}

TEST_P(CapiEndings, FreeRunsOutcomesAndWaitsForHandlers) {
  Kept kept;
  server_methods.add("keep", kept.handler(), TOLK_INLINE);
  start();
  Done done;
  const tolk_call call = never_ending(done);
  tolk_client_start(client.get(), &call);
  kept.has_one.wait();
  client.reset();
  EXPECT_EQ(done.calls, 1);
  EXPECT_EQ(done.answer.status, TOLK_CLOSED);
  end();
}

TEST_P(CapiEndings, AThreadThatWaitsIsReleasedByTheEnd) {
  Kept kept;
  server_methods.add("keep", kept.handler(), TOLK_INLINE);
  start();
  std::thread waits(
      [&] { EXPECT_EQ(call_client(client.get(), "keep", "", TOLK_FOREVER).status, TOLK_CLOSED); });
  kept.has_one.wait();
  EXPECT_EQ(tolk_client_close(client.get(), 0), TOLK_OK);
  waits.join();
  end();
}

TEST_P(CapiEndings, FreeInACallback) {
  server_methods.add_echo();
  for (const unsigned flags : {0U, static_cast<unsigned>(TOLK_INLINE)}) {
    start();
    Done done;
    done.also = [&](const tolk_outcome*) { client.reset(); };
    tolk_call call = never_ending(done);
    call.method = "echo";
    call.flags = flags;
    tolk_client_start(client.get(), &call);
    done.wait();
    EXPECT_EQ(done.answer.status, TOLK_OK);
    server.reset();
  }
}

TEST_P(CapiEndings, CloseWaitsForHandlersAndTheirAnswers) {
  Event begun;
  Event may_end;
  server_methods.add("slow", [&](tolk_request* request) {
    begun.set();
    may_end.wait();
    tolk_request_answer(request, text_block("done").release());
  });
  start();
  std::thread calls([&] { EXPECT_EQ(call_client(client.get(), "slow", "", 20000).text, "done"); });
  begun.wait();
  std::thread closes([&] { EXPECT_EQ(tolk_server_close(server.get(), 20000), TOLK_OK); });
  may_end.set();
  calls.join();
  closes.join();
  EXPECT_EQ(tolk_server_wait_closed(server.get(), 0), TOLK_OK);
  end();
}

TEST_P(CapiEndings, AClientIsDisconnected) {
  server_methods.add_echo();
  start();
  const auto other = connect();
  std::uint64_t ids[2] = {};
  ASSERT_EQ(tolk_server_clients(server.get(), ids, 2), 2U);
  EXPECT_TRUE(tolk_server_disconnect(server.get(), ids[0]));
  while (tolk_server_clients(server.get(), nullptr, 0) == 2) std::this_thread::yield();
  EXPECT_FALSE(tolk_server_disconnect(server.get(), ids[0]));
  EXPECT_EQ(call_client(other.get(), "echo", "x").text, "x");
}

TEST_P(CapiEndings, AClientStopsTheServerOnlyIfItMay) {
  start();
  EXPECT_EQ(tolk_client_call(client.get(), "s_c_close_server", nullptr, 0, nullptr, nullptr),
            TOLK_NO_METHOD);
  client.reset();
  server.reset();
  Event stopped;
  tolk_server_options options{};
  options.clients_may_stop = true;
  options.context = &stopped;
  options.on_stopped = [](void* context, tolk_server*, const tolk_error*) {
    static_cast<Event*>(context)->set();
  };
  listen(options);
  client = connect();
  EXPECT_EQ(tolk_client_call(client.get(), "s_c_close_server", nullptr, 0, nullptr, nullptr),
            TOLK_OK);
  stopped.wait();
  EXPECT_EQ(tolk_server_wait_closed(server.get(), 20000), TOLK_OK);
  end();
}

// Counts the lines, until the library needs it no longer.
struct CountedLines {
  std::atomic<int> lines{0};
  Event released;

  tolk_server_options options() {
    tolk_server_options options{};
    options.context = this;
    options.log = [](void* self, tolk_level, const char*) {
      ++static_cast<CountedLines*>(self)->lines;
    };
    options.free_context = [](void* self) { static_cast<CountedLines*>(self)->released.set(); };
    return options;
  }
};

TEST_P(CapiEndings, TheLogGetsNoLineAfterTheFree) {
  CountedLines log;
  Kept kept;
  server_methods.add("keep", kept.handler(), TOLK_INLINE);
  listen(log.options());
  client = connect();
  ASSERT_EQ(tolk_client_post(client.get(), "keep", nullptr, 0, nullptr), TOLK_OK);
  kept.has_one.wait();
  server.reset();
  const int lines = log.lines;
  EXPECT_GT(lines, 0);
  tolk_request_free(kept.requests.back());
  kept.requests.clear();
  EXPECT_TRUE(log.released.wait());
  EXPECT_EQ(log.lines, lines);
}

// The loop thread is not waited for there, and ends later.
TEST_P(CapiEndings, TheLogGetsNoLineAfterAFreeInACallback) {
  CountedLines log;
  int lines = 0;
  server_methods.add("free", [&](tolk_request* request) {
    server.reset();
    lines = log.lines;
    tolk_request_free(request);
  });
  listen(log.options());
  client = connect();
  ASSERT_EQ(tolk_client_post(client.get(), "free", nullptr, 0, nullptr), TOLK_OK);
  EXPECT_TRUE(log.released.wait());
  EXPECT_GT(lines, 0);
  EXPECT_EQ(log.lines, lines);
}

TEST_P(CapiEndings, AFreeWaitsForALineThatIsBeingTold) {
  struct Log {
    Event begun;
    Event freed;
  } log;
  Kept kept;
  server_methods.add("keep", kept.handler(), TOLK_INLINE);
  tolk_server_options options{};
  options.context = &log;
  options.log = [](void* context, tolk_level, const char* text) {
    if (std::string(text).find(" called keep: ") == std::string::npos) return;
    static_cast<Log*>(context)->begun.set();
    EXPECT_FALSE(static_cast<Log*>(context)->freed.wait(std::chrono::milliseconds(50)));
  };
  listen(options);
  client = connect();
  ASSERT_EQ(tolk_client_post(client.get(), "keep", nullptr, 0, nullptr), TOLK_OK);
  kept.has_one.wait();
  std::thread fails([&] {
    tolk_request_free(kept.requests.back());
    kept.requests.clear();
  });
  log.begun.wait();
  server.reset();
  log.freed.set();
  fails.join();
}

}  // namespace
