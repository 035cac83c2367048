// The C interface with hosts that use the required interface: calls and posts in both directions,
// what each side learns of failures, and large data, which these peers do not know in pieces.
#include <filesystem>
#include <fstream>

#include "raw_ends.h"
#include "tests/capi/transfer_support.h"
#include "tests/e2e/support/handlers.h"
#include "tests/platform/temp_directory.h"

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

// The data of a call or an answer, in one message: they come before the other values.
constexpr std::size_t kDataBytes = 5 * kPieceOfTransfer;

void expect_data_and_seven(TolkParams* block) {
  ASSERT_NE(block, nullptr);
  ASSERT_GE(block->ParamsSize(), 2);
  long size = 0;
  const char* const bytes = block->GetValue(0)->GetStream(size);
  ASSERT_EQ(static_cast<std::size_t>(size), kDataBytes);
  EXPECT_TRUE(are_bytes(0, bytes, kDataBytes));
  EXPECT_EQ(block->GetValue(1)->GetInt(), 7);
}

void expect_data_and_seven(const tolk_block* block) {
  EXPECT_EQ(tolk_block_total(block), 2U);
  const std::string bytes = bytes_at(block, 0);
  ASSERT_EQ(bytes.size(), kDataBytes);
  EXPECT_TRUE(are_bytes(0, bytes.data(), kDataBytes));
  EXPECT_EQ(tolk_block_int(block, 1), 7);
}

Owned<tolk_block> seven() {
  Owned<tolk_block> block(tolk_block_new());
  tolk_block_add_int(block.get(), 7);
  return block;
}

IServerMethod* expecting_data_and_seven() {
  return on_call([](int, TolkParams* in, TolkParams* out) {
    expect_data_and_seven(in);
    out->AddString("taken");
  });
}

// Sends them.
struct DataAndSeven : DataCall {
  explicit DataAndSeven(const char* method) : DataCall(method) {
    arguments = seven();
    raw.limit_ms = kLongMs;
    raw.piece_limit_ms = kLongMs;
    raw.source = maker.source(kDataBytes);
  }
  void expect_taken(tolk_status status) const {
    EXPECT_EQ(status, TOLK_OK) << reason;
    EXPECT_EQ(text_of(result.get()), "taken");
    EXPECT_EQ(maker.made, kDataBytes);
    EXPECT_EQ(reports.front(), 0U);
    EXPECT_EQ(reports.back(), kDataBytes);
  }

  Maker maker;
};

// Answers with them.
void add_fetch(Methods& methods) {
  methods.add("fetch", [](tolk_request* request) {
    static const std::string bytes = some_bytes(kDataBytes);
    tolk_request_answer_data(request, seven().release(),
                             tolk_source_memory(bytes.data(), bytes.size(), nullptr, nullptr));
  });
}

// A source that writes nothing to the memory that it gets. The system then provides none.
struct Untouched {
  std::atomic<int> reads{0};

  tolk_source* source(std::uint64_t total) {
    const auto read = [](void* self, void*, std::size_t capacity) {
      ++static_cast<Untouched*>(self)->reads;
      return capacity;
    };
    return tolk_source_callback(total, read, this, nullptr);
  }
};

constexpr std::uint64_t kMostOfAFrame = 0x7ffffffb;
constexpr char kNotInPieces[] =
    "the peer does not take data in pieces, and they are too large for one";
constexpr char kNotInOneMessage[] = "the data are too large for one message";

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

TEST_P(CapiAtRequiredServer, DataOfACallGoInOneMessage) {
  server->method("take", expecting_data_and_seven());
  start();
  DataAndSeven call("take");
  call.expect_taken(call.run(client.get()));
}

TEST_P(CapiAtRequiredServer, DataOfAnAnswerGoInOneMessage) {
  add_fetch(methods);
  start();
  expect_data_and_seven(server->SendMsg(*id, "fetch", nullptr, 0, kLongMs));
}

// More than a frame has, as much, and so much that the other arguments have no room.
TEST_P(CapiAtRequiredServer, DataThatDoNotFitIntoOneMessageAreNotSent) {
  Counter taken;
  server->method("take", counting(taken));
  start();
  struct Case {
    std::uint64_t total;
    const char* reason;
    int reads;
  };
  const Case cases[] = {{kMostOfAFrame + 1, kNotInPieces, 0},
                        {kMostOfAFrame, kNotInOneMessage, 1},
                        {kMostOfAFrame - 1000, kNotInOneMessage, 1}};
  for (const auto& [total, reason, reads] : cases) {
    Untouched data;
    DataCall call("take");
    call.raw.piece_limit_ms = kLongMs;
    call.raw.source = data.source(total);
    EXPECT_EQ(call.run(client.get()), TOLK_TOO_LARGE) << total;
    EXPECT_EQ(call.reason, reason) << total;
    EXPECT_EQ(data.reads, reads) << total;
  }
  EXPECT_EQ(call_client(client.get(), "here", "").status, TOLK_OK) << "the connection stays";
  EXPECT_EQ(taken.value(), 0);
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

TEST_P(CapiWithRequiredClient, ItGetsTheDataOfACallInOneMessage) {
  client->method("take", expecting_data_and_seven());
  start();
  DataAndSeven call("take");
  call.expect_taken(call.run(server.get(), id));
}

TEST_P(CapiWithRequiredClient, ItGetsTheDataOfAnAnswerInOneMessage) {
  add_fetch(methods);
  start();
  expect_data_and_seven(client->SendMsgFast("fetch", nullptr, 0, kLongMs));
}

// Then nobody asks for a sink.
TEST_P(CapiWithRequiredClient, ItSendsDataInOneMessage) {
  DataMethod take;
  take.accept = [](const tolk_request*, std::uint64_t, tolk_sink**) {
    ADD_FAILURE();
    return TOLK_BUSY;
  };
  take.handler = [](tolk_request* request) {
    expect_data_and_seven(tolk_request_arguments(request));
    tolk_request_answer(request, text_block("taken").release());
  };
  take.add_to(methods.get(), "take");
  start();
  const std::string bytes = some_bytes(kDataBytes);
  TolkParams arguments;
  arguments.AddStream(bytes.data(), static_cast<long>(bytes.size()));
  arguments.AddInt(7);
  EXPECT_EQ(string_at(client->SendMsgFast("take", &arguments, 0, kLongMs), 0), "taken");
  server.reset();
}

TEST_P(CapiWithRequiredClient, ItLearnsThatAnAnswerDoesNotFitIntoOneMessage) {
  Untouched data;
  std::atomic<std::uint64_t> total{0};
  methods.add("fetch", [&](tolk_request* request) {
    tolk_request_answer_data(request, seven().release(), data.source(total));
  });
  start();
  const auto error_of_fetch = [&](std::uint64_t of) -> std::string {
    total = of;
    TolkParams* const failed = client->SendMsgFast("fetch", nullptr, 0, kLongMs);
    TolkValue* const error = failed == nullptr ? nullptr : failed->GetMap("tolk.error");
    return error == nullptr ? "none" : error->GetString();
  };
  EXPECT_EQ(error_of_fetch(kMostOfAFrame + 1), kNotInPieces);
  EXPECT_EQ(data.reads, 0);
  EXPECT_EQ(error_of_fetch(kMostOfAFrame - 1000), kNotInOneMessage);
  EXPECT_EQ(data.reads, 1);
  server.reset();
}

// They come in pieces of another kind, and so does the answer.
TEST_P(CapiWithRequiredClient, ItsLargeCallsAreAnsweredInPieces) {
  methods.add("mirror", [](tolk_request* request) {
    const tolk_block* const got = tolk_request_arguments(request);
    EXPECT_EQ(tolk_block_total(got), 1U);
    tolk_request_answer(request, text_block(bytes_at(got, 0)).release());
  });
  methods.add("refuse", [](tolk_request* request) {
    tolk_request_fail(request, TOLK_FAILED, 0, "no", nullptr);
  });
  start();
  const std::string bytes = some_bytes(100000);
  TolkParams large;
  large.AddStream(bytes.data(), static_cast<long>(bytes.size()));
  TolkParams* result = client->SendMsgEx("mirror", &large, 77, 0);
  ASSERT_NE(result, nullptr);
  ASSERT_NE(result->GetValue(0), nullptr);
  long size = 0;
  const char* const mirrored = result->GetValue(0)->GetStream(size);
  EXPECT_EQ(std::string(mirrored, static_cast<std::size_t>(size)), bytes);
  TolkParams more;
  result = client->SendMsgEx("refuse", &more, 78, 0);
  ASSERT_NE(result, nullptr);
  EXPECT_NE(result->GetMap("tolk.error"), nullptr);
  TolkParams none;
  EXPECT_EQ(string_at(client->SendMsgEx("unknown", &none, 79, 0), 0), "no event: unknown");
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

// In an empty directory, which is the current one.
class CapiInDirectory : public OverTransports {
 protected:
  CapiInDirectory() { std::filesystem::current_path(directory_.path()); }
  ~CapiInDirectory() override { std::filesystem::current_path(before_); }

 private:
  const std::filesystem::path before_ = std::filesystem::current_path();
  const TempDirectory directory_;
};
TOLK_CAPI_OVER_TRANSPORTS(CapiInDirectory);

// A required server over TCP removes it.
TEST_P(CapiInDirectory, AServerLeavesAFileThatIsNamedLikeItsPort) {
  std::ofstream(address.port) << "kept";
  const Methods methods;
  auto server = c_server(address, methods);
  ASSERT_NE(server, nullptr);
  EXPECT_TRUE(std::filesystem::exists(address.port)) << "after the start";
  EXPECT_EQ(tolk_server_close(server.get(), kLongMs), TOLK_OK);
  server.reset();
  EXPECT_TRUE(std::filesystem::exists(address.port)) << "after the end";
}

}  // namespace
}  // namespace tolk::test
