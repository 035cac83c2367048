// The C interface with hosts that use the required interface: calls and posts in both directions,
// and what each side learns of failures.
#include "raw_ends.h"
#include "tests/e2e/support/handlers.h"

namespace tolk::test {
namespace {

constexpr int kLongMs = 20000;

// Adds its two numbers, of which the second has a key.
IServerMethod* adding() {
  return on_call([](int, TolkParams* in, TolkParams* out) {
    out->AddInt(in->GetValue(0)->GetInt() + in->GetMap("b")->GetInt());
    out->AddString("done");
  });
}

void add_adding(Methods& methods) {
  methods.add("add", [](tolk_request* request) {
    const tolk_block* const in = tolk_request_arguments(request);
    tolk_block* const out = tolk_block_new();
    tolk_block_add_int(out, tolk_block_int(in, 0) + tolk_block_int(in, tolk_block_find(in, "b")));
    tolk_block_add_text(out, "done", TOLK_TO_ZERO);
    tolk_request_answer(request, out);
  });
}

Owned<tolk_block> two_and_three() {
  Owned<tolk_block> block(tolk_block_new());
  tolk_block_add_int(block.get(), 2);
  tolk_block_add_key(block.get(), "b");
  tolk_block_add_int(block.get(), 3);
  return block;
}

void fill_two_and_three(TolkParams& block) {
  block.AddInt(2);
  block.AddKeyValueInt("b", 3);
}

void expect_sum(const tolk_block* result) {
  ASSERT_NE(result, nullptr);
  EXPECT_EQ(tolk_block_total(result), 2U);  // no keys of the envelope
  EXPECT_EQ(tolk_block_int(result, 0), 5);
  EXPECT_STREQ(tolk_block_text(result, 1, nullptr), "done");
}

void expect_sum(TolkParams* reply) {
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(reply->GetValue(0)->GetInt(), 5);
  EXPECT_STREQ(reply->GetValue(1)->GetString(), "done");
  EXPECT_EQ(reply->MapSize(), 3);  // the envelope alone
}

// A client of the C interface and a required server.
class CapiAtRequiredServer : public OverTransports {
 protected:
  void start() {
    server->method("s_c_closed", counting(gone));
    server->method("here", on_call([id = id](int from, TolkParams*, TolkParams*) { *id = from; }));
    ASSERT_TRUE(start_server(server.get(), address));
    tolk_client_options options{};
    options.context = &client_gone;
    options.on_gone = [](void* context, tolk_client*, const tolk_error* why) {
      EXPECT_EQ(tolk_error_status(why), TOLK_GONE);
      static_cast<Counter*>(context)->add();
    };
    client = c_client(address, methods, options);
    ASSERT_NE(client, nullptr);
    ASSERT_EQ(call_client(client.get(), "here", "").status, TOLK_OK);
  }

  const std::shared_ptr<std::atomic<int>> id = std::make_shared<std::atomic<int>>(0);
  Counter gone;
  Counter client_gone;
  Methods methods;
  ServerPtr server = make_server();
  Owned<tolk_client> client;
};
TOLK_CAPI_OVER_TRANSPORTS(CapiAtRequiredServer);

TEST_P(CapiAtRequiredServer, CallsAreAnswered) {
  server->method("add", adding());
  start();
  tolk_block* result = nullptr;
  ASSERT_EQ(tolk_client_call(client.get(), "add", two_and_three().get(), 0, &result, nullptr),
            TOLK_OK);
  expect_sum(result);
  tolk_block_free(result);
}

TEST_P(CapiAtRequiredServer, FailuresHaveAReason) {
  Gate gate;
  const OpenAtEnd open(gate);
  server->method("slow", blocking(gate));
  server->method("throws", on_call([](int, TolkParams*, TolkParams*) { throw 1; }));
  start();
  EXPECT_EQ(call_client(client.get(), "absent", "").status, TOLK_NO_METHOD);
  EXPECT_EQ(call_client(client.get(), "throws", "").status, TOLK_OK);  // it has no way to tell
  EXPECT_EQ(call_client(client.get(), "slow", "", 50).status, TOLK_TIMED_OUT);
}

TEST_P(CapiAtRequiredServer, PostsArriveAndTheirAnswersReachNoCall) {
  Counter posted;
  server->method("note", counting(posted));
  server->method("echo", on_call([](int, TolkParams* in, TolkParams* out) {
                   out->AddString(string_at(in, 0).c_str());
                 }));
  start();
  for (int i = 0; i < 50; ++i) {
    ASSERT_EQ(tolk_client_post(client.get(), "note", nullptr, kLongMs, nullptr), TOLK_OK);
    const std::string text = std::to_string(i);
    ASSERT_EQ(call_client(client.get(), "echo", text).text, text);
  }
  EXPECT_TRUE(posted.wait_for(50));
}

TEST_P(CapiAtRequiredServer, TheServersCallsAreAnswered) {
  add_adding(methods);
  methods.add("fail", [](tolk_request* request) {
    tolk_request_fail(request, TOLK_FAILED, 7, "no", nullptr);
  });
  start();
  TolkParams arguments;
  fill_two_and_three(arguments);
  expect_sum(server->SendMsg(*id, "add", &arguments, 0, kLongMs));
  TolkParams* const absent = server->SendMsg(*id, "absent", nullptr, 0, kLongMs);
  EXPECT_EQ(string_at(absent, 0), "no event: absent");
  TolkParams* const failed = server->SendMsg(*id, "fail", nullptr, 0, kLongMs);
  ASSERT_NE(failed, nullptr);
  EXPECT_EQ(failed->ParamsSize(), 0);
  EXPECT_STREQ(failed->GetMap("tolk.error")->GetString(), "no");
}

TEST_P(CapiAtRequiredServer, TheServersPostsArrive) {
  Counter posted;
  methods.add("note", [&](tolk_request* request) {
    posted.add();
    tolk_request_answer(request, nullptr);
  });
  start();
  for (int i = 0; i < 20; ++i) server->PostMsg(*id, "note", nullptr, 0);
  EXPECT_TRUE(posted.wait_for(20));
  client.reset();
}

// Calls, posts, a cancel, and the question for the methods.
TEST_P(CapiAtRequiredServer, ACatchAllSeesNoNameOfTheLibrary) {
  const auto seen = std::make_shared<NamesSeen>();
  server->methodall(on_any_call([seen](const char* name, int, TolkParams*, TolkParams* out) {
    seen->add(name);
    out->AddString("seen");
  }));
  start();
  tolk_call call = call_of("cancelled", nullptr, TOLK_FOREVER);
  tolk_client_cancel(client.get(), tolk_client_start(client.get(), &call));
  tolk_client_post(client.get(), "posted", nullptr, kLongMs, nullptr);
  EXPECT_EQ(call_client(client.get(), "tolk.describe", "").status, TOLK_NO_METHOD);
  EXPECT_EQ(call_client(client.get(), "called", "").status, TOLK_OK);
  EXPECT_TRUE(eventually([&] { return seen->has("called") && seen->has("posted"); }));
  EXPECT_FALSE(seen->has_prefix("tolk."));
}

TEST_P(CapiAtRequiredServer, TheServerLearnsThatTheClientHasGone) {
  start();
  client.reset();
  EXPECT_TRUE(gone.wait_for(1));
}

TEST_P(CapiAtRequiredServer, TheClientLearnsThatTheServerHasGone) {
  Gate gate;
  const OpenAtEnd open(gate);
  server->method("slow", blocking(gate));
  start();
  tolk_call call = call_of("slow", nullptr, kLongMs);
  const uint64_t number = tolk_client_start(client.get(), &call);
  ASSERT_TRUE(gate.wait_entered());
  std::thread closing([&] { server->close(); });
  EXPECT_EQ(tolk_client_wait(client.get(), number, nullptr, nullptr), TOLK_GONE);
  EXPECT_TRUE(client_gone.wait_for(1));
  EXPECT_EQ(call_client(client.get(), "slow", "").status, TOLK_GONE);
  client.reset();
  gate.open();
  closing.join();
}

// A server of the C interface and a required client.
class CapiWithRequiredClient : public OverTransports {
 protected:
  void start() {
    server = c_server(address, methods);
    ASSERT_NE(server, nullptr);
    ASSERT_TRUE(connect_client(client.get(), address));
    ASSERT_EQ(tolk_server_clients(server.get(), &id, 1), 1U);
  }

  Methods methods;
  Owned<tolk_server> server;
  ClientPtr client = make_client();
  uint64_t id = 0;
};
TOLK_CAPI_OVER_TRANSPORTS(CapiWithRequiredClient);

TEST_P(CapiWithRequiredClient, ItsCallsAreAnswered) {
  add_adding(methods);
  methods.add("fail", [](tolk_request* request) {
    tolk_request_fail(request, TOLK_FAILED, 7, "no", nullptr);
  });
  start();
  TolkParams arguments;
  fill_two_and_three(arguments);
  expect_sum(client->SendMsgFast("add", &arguments, 0, kLongMs));
  expect_sum(client->SendMsg("add", &arguments, 0, kLongMs));
  EXPECT_EQ(string_at(client->SendMsgFast("absent", nullptr, 0, kLongMs), 0), "no event: absent");
  TolkParams* const failed = client->SendMsgFast("fail", nullptr, 0, kLongMs);
  ASSERT_NE(failed, nullptr);
  EXPECT_EQ(failed->ParamsSize(), 0);
  EXPECT_STREQ(failed->GetMap("tolk.error")->GetString(), "no");
}

TEST_P(CapiWithRequiredClient, ItsPostsArrive) {
  Counter posted;
  methods.add("note", [&](tolk_request* request) {
    posted.add();
    tolk_request_answer(request, nullptr);
  });
  start();
  for (int i = 0; i < 20; ++i) client->PostMsgFast("note", nullptr, 0);
  EXPECT_TRUE(posted.wait_for(20));
  server.reset();
}

TEST_P(CapiWithRequiredClient, ItAnswersTheServersCalls) {
  Counter posted;
  client->method("add", adding());
  client->method("note", counting(posted));
  start();
  tolk_block* result = nullptr;
  ASSERT_EQ(tolk_server_call(server.get(), id, "add", two_and_three().get(), 0, &result, nullptr),
            TOLK_OK);
  expect_sum(result);
  tolk_block_free(result);
  ASSERT_EQ(tolk_server_post(server.get(), id, "note", nullptr, kLongMs, nullptr), TOLK_OK);
  ASSERT_EQ(tolk_server_post(server.get(), TOLK_ALL, "note", nullptr, kLongMs, nullptr), TOLK_OK);
  EXPECT_TRUE(posted.wait_for(2));
}

// Its answer to a call of an unknown name names no call.
TEST_P(CapiWithRequiredClient, TheLimitEndsACallThatItDoesNotKnow) {
  start();
  EXPECT_EQ(call_server(server.get(), id, "absent", "", 50).status, TOLK_TIMED_OUT);
}

TEST_P(CapiWithRequiredClient, ItLearnsThatTheServerHasGone) {
  start();
  server.reset();
  EXPECT_TRUE(eventually([&] { return !client->isok(); }));
  EXPECT_EQ(client->SendMsgFast("add", nullptr, 0, 1000), nullptr);
}

TEST_P(CapiWithRequiredClient, TheServerLearnsThatItHasGone) {
  start();
  client->close();
  EXPECT_TRUE(eventually([&] { return tolk_server_clients(server.get(), nullptr, 0) == 0; }));
  EXPECT_EQ(call_server(server.get(), id, "add", "").status, TOLK_NOT_CONNECTED);
}

}  // namespace
}  // namespace tolk::test
