// Calls from a server to one client: their answers, their timeouts and their failures.
#include <gtest/gtest.h>

#include <array>
#include <thread>

#include "tests/e2e/support/capture.h"
#include "tests/e2e/support/handlers.h"
#include "tests/e2e/support/raw_peer.h"

namespace tolk::test {
namespace {

constexpr int kCallId = 77;
// No test waits that long: a call with this limit is either woken or hangs.
constexpr int kNeverMs = 600000;

// A library server, whose method "who" returns the caller's id, and clients on plain sockets.
class ServerCalls : public OverTransports {
 protected:
  void SetUp() override {
    server->method("who",
                   on_call([](int caller, TolkParams*, TolkParams* out) { out->AddInt(caller); }));
    ASSERT_TRUE(start_server(server.get(), address));
    client.emplace(address);
    ASSERT_TRUE(client->is_greeted());
    id = id_of(*client);
    ASSERT_NE(id, 0);
  }

  static int id_of(RawClient& client) {
    const auto answer = client.call("who");
    const Scalar* const value = answer ? answer->at(0) : nullptr;
    return value == nullptr ? 0 : std::get<int>(*value);
  }

  // A call that the client answers with one number.
  TolkParams* answered_call(int call_id, int number) {
    std::thread answering([&] {
      const auto call = client->socket.read_message();
      ASSERT_TRUE(call.has_value());
      client->socket.send_frame(reply_payload(*call, BlockWriter().add(number)));
    });
    TolkParams* const result = server->SendMsg(id, "m", nullptr, call_id, kNeverMs);
    answering.join();
    return result;
  }
  // The result that is kept under a call id, as a call that cannot be delivered returns it.
  TolkParams* kept(int call_id) { return server->SendMsg(0, "m", nullptr, call_id, kNeverMs); }
  // Returns when the sweep runs: an unanswered call has timed out.
  void let_the_sweep_begin() {
    server->SendMsg(id, "m", nullptr, 999, 0);
    ASSERT_TRUE(client->socket.read_message().has_value());
  }

  static int number_in(TolkParams* block) {
    TolkValue* const value = block == nullptr ? nullptr : block->GetValue(0);
    return value != nullptr && value->IsInt() ? value->GetInt() : -1;
  }

  ServerPtr server = make_server();
  std::optional<RawClient> client;
  int id = 0;
};
TOLK_OVER_TRANSPORTS(ServerCalls);

TEST_P(ServerCalls, ReturnTheResultOfTheClientsMethod) {
  const ClientPtr callee = make_client();
  callee->method("double", on_call([](int, TolkParams* in, TolkParams* out) {
                   out->AddInt(2 * in->GetValue(0)->GetInt());
                 }));
  ASSERT_TRUE(connect_client(callee.get(), address));
  TolkParams* const own = callee->SendMsg("who", nullptr, 0, kNeverMs);
  ASSERT_NE(own, nullptr);
  TolkParams arguments;
  arguments.AddInt(21);
  TolkParams* const result =
      server->SendMsg(number_in(own), "double", &arguments, kCallId, kNeverMs);
  EXPECT_EQ(number_in(result), 42);
  EXPECT_STREQ(result->GetMap("s_c_sw_name")->GetString(), "retval");
  EXPECT_EQ(result->GetMap("s_c_sw_threadid")->GetInt(), kCallId);
  EXPECT_TRUE(result->GetMap("s_c_sw_semid")->IsString());
  EXPECT_EQ(arguments.Size(), 9);  // still the caller's
}

TEST_P(ServerCalls, ReachTheClientWithThatId) {
  RawClient other(address);
  const int other_id = id_of(other);
  ASSERT_NE(other_id, id);
  server->PostMsg(other_id, "for the other", nullptr, 0);
  server->PostMsg(id, "for the one", nullptr, 0);
  EXPECT_EQ(client->socket.read_message()->name(), "for the one");
  EXPECT_EQ(other.socket.read_message()->name(), "for the other");
  EXPECT_TRUE(client->socket.is_quiet());
}

TEST_P(ServerCalls, CallIdZeroMeansThatOfTheThread) {
  const auto id_of_call = [&] {
    server->PostMsg(id, "m", nullptr, 0);
    return client->socket.read_message()->call_id();
  };
  const auto here = id_of_call();
  EXPECT_EQ(id_of_call(), here);
  std::optional<int> there;
  std::thread([&] { there = id_of_call(); }).join();
  EXPECT_NE(there, here);
}

TEST_P(ServerCalls, PostReturnsNullForKnownAndUnknownClients) {
  EXPECT_EQ(server->PostMsg(id, "m", nullptr, 0), nullptr);
  EXPECT_EQ(server->PostMsg(id + 1, "m", nullptr, 0), nullptr);
  EXPECT_FALSE(client->socket.read_message()->token().has_value());
  EXPECT_TRUE(client->socket.is_quiet());
}

TEST_P(ServerCalls, CallToAnUnknownClientDoesNotWait) {
  EXPECT_EQ(server->SendMsg(id + 1, "m", nullptr, kCallId, kNeverMs), nullptr);
  EXPECT_EQ(server->SendMsg(0, "m", nullptr, kCallId, kNeverMs), nullptr);
}

// On purpose: a client is known to the server once it has sent something.
TEST_P(ServerCalls, CallToAClientThatHasSentNothingDoesNotWait) {
  Counter connected;
  std::atomic<int> newcomer{0};
  server->method("s_c_connect",
                 on_call([connected, &newcomer](int its_id, TolkParams*, TolkParams*) mutable {
                   newcomer = its_id;
                   connected.add();
                 }));
  RawClient silent(address, false);
  ASSERT_TRUE(connected.wait_for(1));
  EXPECT_EQ(server->SendMsg(newcomer, "m", nullptr, kCallId, kNeverMs), nullptr);
  server->PostMsg(newcomer, "m", nullptr, kCallId);
  EXPECT_TRUE(silent.socket.is_quiet());
  ASSERT_TRUE(silent.socket.send("x"));  // any byte will do
  ASSERT_TRUE(eventually([&] { return server->GetClientCount() == 2; }));
  server->PostMsg(newcomer, "m", nullptr, kCallId);
  EXPECT_TRUE(silent.socket.read_message().has_value());
}

TEST_P(ServerCalls, CallToAClientThatHasLeftDoesNotWait) {
  client->socket.close();
  ASSERT_TRUE(eventually([&] { return server->GetClientCount() == 0; }));
  EXPECT_EQ(server->SendMsg(id, "m", nullptr, kCallId, kNeverMs), nullptr);
}

// On purpose: without an answer a call returns the block of an earlier answer.
TEST_P(ServerCalls, CallThatTimesOutReturnsTheEarlierResult) {
  TolkParams* const first = answered_call(kCallId, 1);
  EXPECT_EQ(number_in(first), 1);
  EXPECT_EQ(server->SendMsg(id, "m", nullptr, kCallId, 1), first);
  EXPECT_EQ(number_in(first), 1);
  EXPECT_EQ(kept(kCallId), first);  // and so does a call that cannot be delivered
}

TEST_P(ServerCalls, DistinctCallIdsTellFreshFromStale) {
  EXPECT_EQ(number_in(answered_call(kCallId, 1)), 1);
  EXPECT_EQ(server->SendMsg(id, "m", nullptr, kCallId + 1, 1), nullptr);
}

TEST_P(ServerCalls, LaterResultRefreshesTheBlockInPlace) {
  TolkParams* const first = answered_call(kCallId, 1);
  TolkParams* const second = answered_call(kCallId, 2);
  EXPECT_EQ(first, second);
  EXPECT_EQ(number_in(first), 2);
}

TEST_P(ServerCalls, LateAnswerIsKeptAndWakesNobody) {
  EXPECT_EQ(server->SendMsg(id, "first", nullptr, kCallId, 1), nullptr);
  const auto first = client->socket.read_message();
  Counter over;
  TolkParams* result = nullptr;
  std::thread caller([&] {
    result = server->SendMsg(id, "second", nullptr, kCallId, kNeverMs);
    over.add();
  });
  const auto second = client->socket.read_message();
  ASSERT_TRUE(first && second);
  client->socket.send_frame(reply_payload(*first, BlockWriter().add(1)));
  ASSERT_TRUE(eventually([&] { return number_in(kept(kCallId)) == 1; }));
  EXPECT_EQ(over.value(), 0);
  client->socket.send_frame(reply_payload(*second, BlockWriter().add(2)));
  caller.join();
  EXPECT_EQ(number_in(result), 2);
}

TEST_P(ServerCalls, AnswerWithoutACallIdIsDropped) {
  Counter over;
  TolkParams* result = nullptr;
  std::thread caller([&] {
    result = server->SendMsg(id, "m", nullptr, kCallId, kNeverMs);
    over.add();
  });
  const auto call = client->socket.read_message();
  ASSERT_TRUE(call.has_value());
  client->socket.send_frame(BlockWriter()
                                .add(1)
                                .keyed("s_c_sw_name", std::string("retval"))
                                .keyed("s_c_sw_semid", *call->token())
                                .bytes());
  EXPECT_EQ(id_of(*client), id);  // so the server has read it
  EXPECT_EQ(over.value(), 0);
  client->socket.send_frame(reply_payload(*call, BlockWriter().add(2)));
  caller.join();
  EXPECT_EQ(number_in(result), 2);
}

TEST_P(ServerCalls, AnswerToAPostedCallIsKeptUnderItsCallId) {
  server->PostMsg(id, "m", nullptr, kCallId);
  const auto call = client->socket.read_message();
  ASSERT_TRUE(call.has_value());
  client->socket.send_frame(reply_payload(*call, BlockWriter().add(5)));
  EXPECT_TRUE(eventually([&] { return number_in(kept(kCallId)) == 5; }));
}

TEST_P(ServerCalls, ClearRetvalMemDropsResults) {
  EXPECT_NE(answered_call(kCallId, 1), nullptr);
  server->ClearRetvalMem();
  EXPECT_EQ(kept(kCallId), nullptr);
}

// On purpose: a client's answer to an unknown method has no call id.
TEST_P(ServerCalls, MethodThatTheClientLacksTimesOut) {
  const ClientPtr callee = make_client();
  ASSERT_TRUE(connect_client(callee.get(), address));
  const int callee_id = number_in(callee->SendMsg("who", nullptr, 0, kNeverMs));
  const Stopwatch watch;
  EXPECT_EQ(server->SendMsg(callee_id, "nothing", nullptr, kCallId, 600), nullptr);
  EXPECT_GE(watch.elapsed(), Milliseconds(600));
}

TEST_P(ServerCalls, ConcurrentCallsGetTheirOwnAnswers) {
  constexpr int kCallers = 8;
  std::vector<std::thread> callers;
  std::array<int, kCallers> results{};
  for (int i = 0; i < kCallers; ++i) {
    callers.emplace_back([this, i, &results] {
      results.at(static_cast<std::size_t>(i)) =
          number_in(server->SendMsg(id, "m", nullptr, kCallId + i, kNeverMs));
    });
  }
  std::vector<Message> calls;
  for (int i = 0; i < kCallers; ++i) {
    auto call = client->socket.read_message();
    ASSERT_TRUE(call.has_value());
    calls.insert(calls.begin(), std::move(*call));  // answered in reverse
  }
  for (const Message& call : calls) {
    client->socket.send_frame(reply_payload(call, BlockWriter().add(*call.call_id() - kCallId)));
  }
  for (std::thread& caller : callers) caller.join();
  for (int i = 0; i < kCallers; ++i) EXPECT_EQ(results.at(static_cast<std::size_t>(i)), i);
}

// Timeouts.

// On purpose, unlike in a client: a timeout of 0 ends at the next sweep.
TEST_P(ServerCalls, TimeoutOfZeroEndsAtTheFirstSweep) {
  const Stopwatch watch;
  EXPECT_EQ(server->SendMsg(id, "m", nullptr, kCallId, 0), nullptr);
  EXPECT_GE(watch.elapsed(), Milliseconds(495));  // the first sweep comes 500 ms after this call
}

TEST_P(ServerCalls, TimeoutOfZeroAcceptsAnAnswerBeforeTheSweep) {
  server->SetTimeoutStep(kNeverMs);
  let_the_sweep_begin();  // and the next one is far
  std::thread answering([&] {
    const auto call = client->socket.read_message();
    ASSERT_TRUE(call.has_value());
    client->socket.send_frame(reply_payload(*call, BlockWriter().add(1)));
  });
  EXPECT_EQ(number_in(server->SendMsg(id, "m", nullptr, kCallId, 0)), 1);
  answering.join();
}

TEST_P(ServerCalls, CallNeverTimesOutEarly) {
  let_the_sweep_begin();
  const Stopwatch watch;
  EXPECT_EQ(server->SendMsg(id, "m", nullptr, kCallId, 250), nullptr);
  EXPECT_GE(watch.elapsed(), Milliseconds(250));
}

TEST_P(ServerCalls, TimeoutStepSetWhileRunningAppliesAfterTheNextSweep) {
  server->SetTimeoutStep(2000);
  let_the_sweep_begin();
  server->SetTimeoutStep(50);  // the timer is set already: one more interval of 2 s
  const Stopwatch watch;
  EXPECT_EQ(server->SendMsg(id, "m", nullptr, kCallId, 1), nullptr);
  EXPECT_GE(watch.elapsed(), Milliseconds(1000));
  const Stopwatch again;
  EXPECT_EQ(server->SendMsg(id, "m", nullptr, kCallId, 1), nullptr);
  EXPECT_LT(again.elapsed(), Milliseconds(1000));
}

TEST_P(ServerCalls, TimeoutStepBelowOneIsTheDefault) {
  for (const int step : {0, -5}) {
    server->SetTimeoutStep(kNeverMs);
    server->SetTimeoutStep(step);
    let_the_sweep_begin();
    // The sweep looks once now or soon: only a further look ends this call.
    EXPECT_EQ(server->SendMsg(id, "m", nullptr, kCallId, 700), nullptr) << step;
    ASSERT_TRUE(client->socket.read_message().has_value());
  }
}

// The sweep of one server ends the calls of all.
TEST_P(ServerCalls, SweepOfAnotherServerTimesOutTheCallToo) {
  server->SetTimeoutStep(kNeverMs);
  let_the_sweep_begin();
  Counter over;
  std::thread caller([&] {
    EXPECT_EQ(server->SendMsg(id, "m", nullptr, kCallId, 0), nullptr);
    over.add();
  });
  ASSERT_TRUE(client->socket.read_message().has_value());
  EXPECT_FALSE(over.wait_for(1, kQuiet));
  const ServerPtr other = make_server();
  ASSERT_TRUE(start_server(other.get(), fresh_address(GetParam())));
  other->PostMsg(0, "m", nullptr, 0);  // its first call starts its sweep
  caller.join();
}

TEST_P(ServerCalls, CallsOfAServerThatDoesNotRunPrintALine) {
  const ServerPtr idle = make_server();
  Capture capture;
  EXPECT_EQ(idle->SendMsg(id, "m", nullptr, kCallId, kNeverMs), nullptr);
  EXPECT_EQ(idle->PostMsg(id, "m", nullptr, kCallId), nullptr);
  EXPECT_EQ(capture.text(), "send msg: disconnect... .. .\nsend msg: disconnect... .. .\n");
}

// Called on the loop thread, which would have to read the answer, a call does not wait.
TEST_P(ServerCalls, HookMayCallAndPost) {
  Counter hooked;
  server->method("s_c_connect", on_call([raw = server.get(), to = id, hooked](int, TolkParams*,
                                                                              TolkParams*) mutable {
                   raw->PostMsg(to, "posted", nullptr, kCallId);
                   EXPECT_EQ(raw->SendMsg(to, "called", nullptr, kCallId, kNeverMs), nullptr);
                   hooked.add();
                 }));
  RawClient newcomer(address);
  EXPECT_TRUE(hooked.wait_for(1));
  EXPECT_EQ(client->socket.read_message()->name(), "posted");
  EXPECT_EQ(client->socket.read_message()->name(), "called");
}

}  // namespace
}  // namespace tolk::test
