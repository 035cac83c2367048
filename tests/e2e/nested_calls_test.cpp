// Handlers that call the caller back, several levels deep. A process has four worker threads; here
// both sides are in one process and share them, which is the hardest case.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "tests/e2e/support/handlers.h"
#include "tests/e2e/support/transports.h"

namespace tolk::test {
namespace {

constexpr int kWorkers = 4;
constexpr int kNever = 600000;

class NestedCalls : public OverTransports {
 protected:
  void SetUp() override { ASSERT_TRUE(start_server(server.get(), address)); }

  void connect() { ASSERT_TRUE(connect_client(client.get(), address)); }

  // "level N" calls "level N - 1" of the other side and answers one more than it; "level 0" answers
  // 0. Odd levels are the server's, and so the outermost call is of an odd level.
  void add_levels(int limit_ms) {
    for (int level = 0; level < 8; ++level) {
      const std::string name = "level " + std::to_string(level);
      const std::string next = "level " + std::to_string(level - 1);
      if (level % 2 == 1) {
        server->method(name.c_str(), on_call([s = server.get(), next, limit_ms](int id, TolkParams*,
                                                                                TolkParams* out) {
                         answer(s->SendMsg(id, next.c_str(), nullptr, fresh_id(), limit_ms), out);
                       }));
      } else if (level == 0) {
        client->method(name.c_str(),
                       on_call([](int, TolkParams*, TolkParams* out) { out->AddInt(0); }));
      } else {
        client->method(name.c_str(), on_call([c = client.get(), next, limit_ms](int, TolkParams*,
                                                                                TolkParams* out) {
                         answer(c->SendMsgFast(next.c_str(), nullptr, fresh_id(), limit_ms), out);
                       }));
      }
    }
  }
  // A call id that no other call uses, so that no earlier result is kept under it.
  static int fresh_id() {
    static std::atomic<int> last{1000};
    return ++last;
  }
  static void answer(TolkParams* inner, TolkParams* out) {
    out->AddInt(inner == nullptr ? -100 : inner->GetValue(0)->GetInt() + 1);
  }
  static int number_in(TolkParams* block) {
    return block == nullptr ? -1000 : block->GetValue(0)->GetInt();
  }

  ServerPtr server = make_server();
  ClientPtr client = make_client();
};
TOLK_OVER_TRANSPORTS(NestedCalls);

TEST_P(NestedCalls, ThreeLevelsWork) {
  add_levels(kNever);
  connect();
  // Server, client, server, client: as many handlers at once as there are workers.
  EXPECT_EQ(number_in(client->SendMsgFast("level 1", nullptr, 0, kNever)), 1);
  EXPECT_EQ(number_in(client->SendMsgFast("level 3", nullptr, 0, kNever)), 3);
}

// The fifth handler would have to start while four handlers wait for it: the call of the fourth
// times out, and then all of them end.
TEST_P(NestedCalls, OneLevelMoreThanWorkersTimesOutInside) {
  add_levels(700);
  connect();
  const Stopwatch watch;
  TolkParams* const result = client->SendMsgFast("level 5", nullptr, 0, kNever);
  EXPECT_GE(watch.elapsed(), Milliseconds(700));
  EXPECT_LT(number_in(result), 0);
}

TEST_P(NestedCalls, HandlersThatWaitOnAllWorkersTimeOut) {
  Counter called_back;
  Gate all_inside;
  const OpenAtEnd open(all_inside);
  client->method("back", counting(called_back));
  server->method("call me back", on_call([s = server.get(), all_inside](int id, TolkParams*,
                                                                        TolkParams* out) mutable {
                   all_inside.pass();
                   const bool null = s->SendMsg(id, "back", nullptr, fresh_id(), 700) == nullptr;
                   out->AddBool(null);
                 }));
  connect();
  std::vector<std::thread> callers;
  std::atomic<int> timed_out{0};
  for (int i = 0; i < kWorkers; ++i) {
    callers.emplace_back([&] {
      TolkParams* const result = client->SendMsgFast("call me back", nullptr, fresh_id(), kNever);
      if (result != nullptr && result->GetValue(0)->GetBool()) ++timed_out;
    });
  }
  ASSERT_TRUE(all_inside.wait_entered(kWorkers));
  all_inside.open();
  for (std::thread& caller : callers) caller.join();
  // The first call that times out frees a worker, so that the last one may still be answered.
  EXPECT_GE(timed_out, 1);
  EXPECT_TRUE(called_back.wait_for(kWorkers));  // the calls themselves were not lost
}

TEST_P(NestedCalls, OneFreeWorkerIsEnough) {
  Counter called_back;
  Gate all_inside;
  const OpenAtEnd open(all_inside);
  client->method("back", counting(called_back));
  server->method("call me back", on_call([s = server.get(), all_inside](int id, TolkParams*,
                                                                        TolkParams* out) mutable {
                   all_inside.pass();
                   out->AddBool(s->SendMsg(id, "back", nullptr, fresh_id(), kNever) == nullptr);
                 }));
  connect();
  std::vector<std::thread> callers;
  std::atomic<int> answered{0};
  for (int i = 0; i < kWorkers - 1; ++i) {
    callers.emplace_back([&] {
      TolkParams* const result = client->SendMsgFast("call me back", nullptr, fresh_id(), kNever);
      if (result != nullptr && !result->GetValue(0)->GetBool()) ++answered;
    });
  }
  ASSERT_TRUE(all_inside.wait_entered(kWorkers - 1));
  all_inside.open();
  for (std::thread& caller : callers) caller.join();
  EXPECT_EQ(answered, kWorkers - 1);
}

// On purpose: one SendMsg at a time runs in a process. The handler's SendMsg waits for the host's,
// which waits for the handler, until the server's call to that handler times out.
TEST_P(NestedCalls, SendMsgInsideSendMsgWaitsForTheServersTimeout) {
  Counter inner_over;
  client->method("back",
                 on_call([c = client.get(), inner_over](int, TolkParams*, TolkParams*) mutable {
                   EXPECT_NE(c->SendMsg("plain", nullptr, fresh_id(), kNever), nullptr);
                   inner_over.add();
                 }));
  server->method("plain", answering("plain"));
  server->method(
      "call me back", on_call([s = server.get(), inner_over](int id, TolkParams*, TolkParams* out) {
        s->SendMsg(id, "back", nullptr, fresh_id(), 700);
        out->AddInt(inner_over.value());  // 0: its SendMsg waits until the host's has returned
      }));
  connect();
  const Stopwatch watch;
  EXPECT_EQ(number_in(client->SendMsg("call me back", nullptr, 0, kNever)), 0);
  EXPECT_GE(watch.elapsed(), Milliseconds(700));
  EXPECT_TRUE(inner_over.wait_for(1));
}

TEST_P(NestedCalls, SendMsgFastInsideSendMsgDoesNotWait) {
  client->method("back", on_call([c = client.get()](int, TolkParams*, TolkParams* out) {
                   out->AddBool(c->SendMsgFast("plain", nullptr, fresh_id(), kNever) != nullptr);
                 }));
  server->method("plain", answering("plain"));
  server->method("call me back", on_call([s = server.get()](int id, TolkParams*, TolkParams* out) {
                   TolkParams* const inner = s->SendMsg(id, "back", nullptr, fresh_id(), kNever);
                   out->AddInt(inner != nullptr && inner->GetValue(0)->GetBool() ? 1 : 0);
                 }));
  connect();
  EXPECT_EQ(number_in(client->SendMsg("call me back", nullptr, 0, kNever)), 1);
}

// The inner call times out in the server, and the outer call goes on.
TEST_P(NestedCalls, InnerTimeoutDoesNotEndTheOuterCall) {
  Gate gate;
  const OpenAtEnd open(gate);
  client->method("slow", blocking(gate));
  server->method("call me back", on_call([s = server.get()](int id, TolkParams*, TolkParams* out) {
                   const bool null = s->SendMsg(id, "slow", nullptr, fresh_id(), 1) == nullptr;
                   out->AddInt(null ? 1 : 0);
                 }));
  connect();
  EXPECT_EQ(number_in(client->SendMsg("call me back", nullptr, 0, kNever)), 1);
}

TEST_P(NestedCalls, LargeCallMayBeCalledBackWhileItRuns) {
  client->method("back", answering("from the client"));
  server->method(
      "large", on_call([s = server.get()](int id, TolkParams*, TolkParams* out) {
        out->AddString(string_at(s->SendMsg(id, "back", nullptr, fresh_id(), kNever), 0).c_str());
      }));
  connect();
  EXPECT_EQ(string_at(client->SendMsgEx("large", nullptr, 0, 0), 0), "from the client");
}

// On purpose: one large call at a time runs in a process.
TEST_P(NestedCalls, LargeCallInsideALargeCallWaitsForTheServersTimeout) {
  Counter inner_over;
  client->method("back",
                 on_call([c = client.get(), inner_over](int, TolkParams*, TolkParams*) mutable {
                   EXPECT_NE(c->SendMsgEx("plain", nullptr, fresh_id(), 0), nullptr);
                   inner_over.add();
                 }));
  server->method("plain", answering("plain"));
  server->method("call me back",
                 on_call([s = server.get(), inner_over](int id, TolkParams*, TolkParams* out) {
                   s->SendMsg(id, "back", nullptr, fresh_id(), 700);
                   out->AddInt(inner_over.value());
                 }));
  connect();
  const Stopwatch watch;
  EXPECT_EQ(number_in(client->SendMsgEx("call me back", nullptr, 0, 0)), 0);
  EXPECT_GE(watch.elapsed(), Milliseconds(700));
  EXPECT_TRUE(inner_over.wait_for(1));
}

}  // namespace
}  // namespace tolk::test
