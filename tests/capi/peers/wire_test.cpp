// Every kind of message of the C interface, byte for byte, as a peer without the library sees it.
#include <thread>

#include "raw_ends.h"
#include "tests/e2e/support/golden.h"

namespace tolk::test {
namespace {

constexpr int kGoldenId = 5;
constexpr char kFeatures[] = "tolk.features";
constexpr char kPeerFeatures[] = "cancel describe pieces";

// What an end chooses by itself is replaced by what the files have. Everything else must be written
// as the raw writer writes it, otherwise the bytes are shown as they came.
std::string shown(const std::optional<std::string>& payload, int call_id = kGoldenId) {
  if (!payload) return "nothing came";
  const auto message = read_message(payload);
  if (!message) return to_hex(frame(*payload));
  BlockWriter same;
  BlockWriter masked;
  for (const auto& [key, value] : message->keyed) {
    same.keyed(key, value);
    Scalar replaced = value;
    if (key == "s_c_sw_semid") replaced = "0x1";
    if (key == "s_c_sw_threadid") replaced = call_id;
    masked.keyed(key, replaced);
  }
  return to_hex(frame(same.bytes() == *payload ? masked.bytes() : *payload));
}

std::string as_it_came(const std::optional<std::string>& payload) {
  return payload ? to_hex(frame(*payload)) : "nothing came";
}

// The positional value 7 and the keyed value ok = true.
Owned<tolk_block> filled() {
  Owned<tolk_block> block(tolk_block_new());
  tolk_block_add_int(block.get(), 7);
  tolk_block_add_key(block.get(), "ok");
  tolk_block_add_bool(block.get(), true);
  return block;
}

// Values that plain blocks do not have.
Owned<tolk_block> typed() {
  Owned<tolk_block> list(tolk_block_new());
  tolk_block_add_int(list.get(), 1);
  tolk_block_add_text(list.get(), "a", 1);
  Owned<tolk_block> map(tolk_block_new());
  tolk_block_add_key(map.get(), "k");
  tolk_block_add_int(map.get(), 7);
  tolk_block_add_key(map.get(), "l");
  const int64_t one_and_two[] = {1, 2};
  tolk_block_add_ints(map.get(), one_and_two, 2);
  Owned<tolk_block> block(tolk_block_new());
  tolk_block_add_none(block.get());
  tolk_block_add_int(block.get(), 5000000000);
  tolk_block_add_uint(block.get(), UINT64_MAX);
  tolk_block_add_text(block.get(), "a\0b", 3);
  tolk_block_add_bytes(block.get(), "xy", 2);
  tolk_block_add_list(block.get(), list.get());
  tolk_block_add_map(block.get(), map.get());
  return block;
}

// The methods that both ends have in these tests.
void add_methods(Methods& methods) {
  const auto nothing = [](void*, tolk_request* request) { tolk_request_answer(request, nullptr); };
  tolk_method_options options{};
  options.size = sizeof options;
  options.signature = "(int, int) -> int";
  options.about = "Adds two numbers.";
  tolk_methods_add(methods.get(), "add", nothing, nullptr, &options, nullptr);
}

// A client of the C interface and its plain-socket server.
class CapiClientWire : public OverTransports {
 protected:
  void connect(Greeting greeting) {
    server = std::make_unique<RawServer>(address, std::move(greeting));
    client = c_client(address, methods);
    ASSERT_NE(client, nullptr);
    peer = server->take();
    ASSERT_TRUE(peer.is_open());
  }
  void connect_to_plain() { connect(accepting()); }
  void connect_to_modern() {
    connect(replying(
        BlockWriter().add(true).keyed("VERSION", kVersion).keyed(kFeatures, kPeerFeatures)));
  }
  uint64_t start(const char* method, const tolk_block* arguments, int limit_ms) {
    tolk_call call = call_of(method, nullptr, limit_ms);
    call.arguments = arguments;
    return tolk_client_start(client.get(), &call);
  }
  std::string answer_to(const char* method) {
    peer.send_frame(call_payload(method, kGoldenId, {}, "0x1"));
    return as_it_came(peer.read_frame());
  }

  Methods methods;
  std::unique_ptr<RawServer> server;
  Owned<tolk_client> client;
  RawSocket peer;
};
TOLK_CAPI_OVER_TRANSPORTS(CapiClientWire);

TEST_P(CapiClientWire, TheVersionCheckTellsTheFeatures) {
  RawServer silent_server(address, silent());
  std::thread connecting([&] {
    tolk_client* none = nullptr;
    EXPECT_EQ(tolk_client_connect(c_address(address).c_str(), nullptr, &none, nullptr), TOLK_GONE);
    EXPECT_EQ(none, nullptr);
  });
  RawSocket accepted = silent_server.take();
  const auto question = accepted.read_frame();
  accepted.close();
  connecting.join();
  EXPECT_EQ(shown(question, 1), to_hex(golden("c_handshake_request")));
}

TEST_P(CapiClientWire, APlainServerGetsPlainCalls) {
  connect_to_plain();
  start("sum", filled().get(), 1500);
  EXPECT_EQ(shown(peer.read_frame()), to_hex(golden("call")));
  start("sum", nullptr, 1500);
  EXPECT_EQ(shown(peer.read_frame()), to_hex(golden("call_without_arguments")));
}

TEST_P(CapiClientWire, OthersLearnTheLimit) {
  connect_to_modern();
  start("sum", filled().get(), 1500);
  EXPECT_EQ(shown(peer.read_frame()), to_hex(golden("c_call_with_limit")));
  start("sum", filled().get(), TOLK_FOREVER);
  EXPECT_EQ(shown(peer.read_frame()), to_hex(golden("call")));
}

TEST_P(CapiClientWire, TypesStandBehindTheCall) {
  connect_to_plain();
  start("sum", typed().get(), TOLK_FOREVER);
  EXPECT_EQ(shown(peer.read_frame()), to_hex(golden("c_call_with_types")));
}

TEST_P(CapiClientWire, APostHasNeitherCallIdNorToken) {
  connect_to_modern();
  ASSERT_EQ(tolk_client_post(client.get(), "sum", filled().get(), 0, nullptr), TOLK_OK);
  EXPECT_EQ(as_it_came(peer.read_frame()), to_hex(golden("c_post")));
}

TEST_P(CapiClientWire, ACancelNamesTheToken) {
  connect_to_modern();
  const uint64_t number = start("sum", nullptr, TOLK_FOREVER);
  const auto call = peer.read_message();
  ASSERT_TRUE(call && call->token());
  ASSERT_TRUE(tolk_client_cancel(client.get(), number));
  const auto cancel = peer.read_message();
  ASSERT_TRUE(cancel);
  EXPECT_EQ(cancel->arguments(), BlockWriter().add(*call->token()).bytes());
  const std::string masked = BlockWriter()
                                 .keyed("s_c_sw_name", cancel->name())
                                 .keyed("s_c_sw_data", Stream{BlockWriter().add("0x1").bytes()})
                                 .bytes();
  EXPECT_EQ(to_hex(frame(masked)), to_hex(golden("c_cancel")));
  EXPECT_EQ(cancel->keys(), (std::vector<std::string>{"s_c_sw_name", "s_c_sw_data"}));
}

TEST_P(CapiClientWire, APlainServerIsNotToldOfACancel) {
  connect_to_plain();
  const uint64_t number = start("sum", nullptr, TOLK_FOREVER);
  ASSERT_TRUE(peer.read_message());
  ASSERT_TRUE(tolk_client_cancel(client.get(), number));
  start("next", nullptr, TOLK_FOREVER);
  const auto next = peer.read_message();
  ASSERT_TRUE(next);
  EXPECT_EQ(next->name(), "next");
}

TEST_P(CapiClientWire, DescribeIsACall) {
  connect_to_modern();
  start("tolk.describe", nullptr, TOLK_FOREVER);
  EXPECT_EQ(shown(peer.read_frame()), to_hex(golden("c_describe")));
}

TEST_P(CapiClientWire, RepliesMatchTheGoldenFiles) {
  methods.add("fill",
              [](tolk_request* request) { tolk_request_answer(request, filled().release()); });
  methods.add("types",
              [](tolk_request* request) { tolk_request_answer(request, typed().release()); });
  methods.add("fail", [](tolk_request* request) {
    tolk_request_fail(request, TOLK_FAILED, 42, "no such file", filled().release());
  });
  methods.add("wrong", [](tolk_request* request) {
    tolk_request_fail(request, TOLK_WRONG_ARGUMENTS, 0, "two numbers", nullptr);
  });
  methods.add("drop", [](tolk_request* request) { tolk_request_free(request); });
  connect_to_plain();
  EXPECT_EQ(answer_to("fill"), to_hex(golden("client_reply")));
  EXPECT_EQ(answer_to("types"), to_hex(golden("c_client_reply_with_types")));
  EXPECT_EQ(answer_to("fail"), to_hex(golden("c_client_failure_reply")));
  EXPECT_EQ(answer_to("wrong"), to_hex(golden("c_client_wrong_arguments_reply")));
  EXPECT_EQ(answer_to("drop"), to_hex(golden("c_client_dropped_reply")));
  EXPECT_EQ(answer_to("foo"), to_hex(golden("c_client_no_method_reply")));
}

TEST_P(CapiClientWire, ItsMethodsAreThreeLists) {
  add_methods(methods);
  methods.add("sum", [](tolk_request* request) { tolk_request_free(request); });
  connect_to_modern();
  EXPECT_EQ(answer_to("tolk.describe"), to_hex(golden("c_client_describe_reply")));
}

// A server of the C interface and its plain-socket client.
class CapiServerWire : public OverTransports {
 protected:
  void SetUp() override {
    methods.add("fill",
                [](tolk_request* request) { tolk_request_answer(request, filled().release()); });
    methods.add("types",
                [](tolk_request* request) { tolk_request_answer(request, typed().release()); });
    methods.add("fail", [](tolk_request* request) {
      tolk_request_fail(request, TOLK_FAILED, 42, "no such file", filled().release());
    });
    methods.add("wrong", [](tolk_request* request) {
      tolk_request_fail(request, TOLK_WRONG_ARGUMENTS, 0, "two numbers", nullptr);
    });
    methods.add("drop", [](tolk_request* request) { tolk_request_free(request); });
  }
  void listen(bool greets = true, tolk_server_options options = {}) {
    server = c_server(address, methods, options);
    peer = std::make_unique<RawClient>(address, greets);
    ASSERT_EQ(peer->is_greeted(), greets);
  }
  std::string answer_to(const char* method) {
    peer->socket.send_frame(call_payload(method, kGoldenId, {}, "0x1"));
    return as_it_came(peer->socket.read_frame());
  }

  Methods methods;
  Owned<tolk_server> server;
  std::unique_ptr<RawClient> peer;
};
TOLK_CAPI_OVER_TRANSPORTS(CapiServerWire);

TEST_P(CapiServerWire, FeaturesAreToldToWhoHasToldThem) {
  listen(false);
  peer->socket.send_frame(call_payload("s_c_version", 1, version_arguments(), "0x1"));
  EXPECT_EQ(as_it_came(peer->socket.read_frame()), to_hex(golden("handshake_reply")));
  RawClient modern(address, false);
  const std::string question = call_payload("s_c_version", kGoldenId, version_arguments(), "0x1");
  const std::string features = BlockWriter(question.size()).keyed(kFeatures, kPeerFeatures).bytes();
  modern.socket.send_frame(question + features);
  EXPECT_EQ(as_it_came(modern.socket.read_frame()), to_hex(golden("c_handshake_reply")));
}

TEST_P(CapiServerWire, RepliesMatchTheGoldenFiles) {
  listen();
  EXPECT_EQ(answer_to("fill"), to_hex(golden("server_reply")));
  EXPECT_EQ(answer_to("types"), to_hex(golden("c_server_reply_with_types")));
  EXPECT_EQ(answer_to("fail"), to_hex(golden("c_server_failure_reply")));
  EXPECT_EQ(answer_to("wrong"), to_hex(golden("c_server_wrong_arguments_reply")));
  EXPECT_EQ(answer_to("drop"), to_hex(golden("c_server_dropped_reply")));
  EXPECT_EQ(answer_to("foo"), to_hex(golden("c_server_no_method_reply")));
}

TEST_P(CapiServerWire, ItsMethodsAreThreeLists) {
  methods = Methods();
  add_methods(methods);
  methods.add("sum", [](tolk_request* request) { tolk_request_free(request); });
  listen();
  EXPECT_EQ(answer_to("tolk.describe"), to_hex(golden("c_server_describe_reply")));
}

TEST_P(CapiServerWire, ItsCallsAndPostsMatchTheGoldenFiles) {
  listen();
  uint64_t id = 0;
  ASSERT_EQ(tolk_server_clients(server.get(), &id, 1), 1U);
  tolk_call call = call_of("sum", nullptr, TOLK_FOREVER);
  call.client = id;
  const auto arguments = filled();
  call.arguments = arguments.get();
  tolk_server_start(server.get(), &call);
  EXPECT_EQ(shown(peer->socket.read_frame()), to_hex(golden("call")));
  ASSERT_EQ(tolk_server_post(server.get(), id, "sum", arguments.get(), 0, nullptr), TOLK_OK);
  EXPECT_EQ(as_it_came(peer->socket.read_frame()), to_hex(golden("c_post")));
}

TEST_P(CapiServerWire, APlainClientGetsNoNameOfTheLibrary) {
  listen();
  tolk_call call{};
  call.size = sizeof call;
  call.limit_ms = TOLK_FOREVER;
  ASSERT_EQ(tolk_server_clients(server.get(), &call.client, 1), 1U);
  call.method = "cancelled";
  tolk_server_cancel(server.get(), tolk_server_start(server.get(), &call));
  EXPECT_EQ(call_server(server.get(), call.client, "tolk.describe", "").status, TOLK_NO_METHOD);
  tolk_server_post(server.get(), call.client, "posted", nullptr, 0, nullptr);
  for (const char* const name : {"cancelled", "posted"}) {
    const auto message = peer->socket.read_message();
    ASSERT_TRUE(message);
    EXPECT_EQ(message->name(), name);
  }
}

// The executor runs what is refused before the start returns.
TEST_P(CapiServerWire, AnOutcomeMayCancelTheCallsToAllThatHaveNotBegun) {
  tolk_server_options options{};
  options.execute = [](void*, tolk_task* task) { tolk_task_run(task); };
  listen(true, options);
  const auto other = c_client(address, {});
  std::vector<tolk_status> outcomes;
  Done last;
  last.also = [&](const tolk_outcome* outcome) {
    outcomes.push_back(outcome->status);
    if (outcome->left == 1) tolk_server_cancel(server.get(), outcome->call);
  };
  tolk_call call = call_of("tolk.describe", &last, TOLK_FOREVER);
  call.client = TOLK_ALL;
  tolk_server_start(server.get(), &call);
  EXPECT_EQ(outcomes, (std::vector<tolk_status>{TOLK_NO_METHOD, TOLK_CANCELLED}));
}

TEST_P(CapiServerWire, APeerThatHasNotNamedItGetsNothingOfTheLibrarysOwn) {
  listen();
  const auto post = [&](const char* method) {
    return tolk_server_post(server.get(), TOLK_ALL, method, nullptr, 0, nullptr);
  };
  for (const char* const method : {"tolk.describe", "tolk.piece", "tolk.cancel", "tolk.new"}) {
    EXPECT_EQ(post(method), TOLK_NO_METHOD);
  }
  EXPECT_EQ(post("tolk"), TOLK_OK);
  const auto first = peer->socket.read_message();
  ASSERT_TRUE(first);
  EXPECT_EQ(first->name(), "tolk");
}

TEST_P(CapiServerWire, ACallWithoutIdAndTokenIsNotAnswered) {
  listen();
  peer->socket.send(golden("c_post"));
  peer->socket.send_frame(BlockWriter().keyed("s_c_sw_name", "fill").bytes());
  EXPECT_EQ(answer_to("fill"), to_hex(golden("server_reply")));
}

TEST_P(CapiServerWire, ACancelOfAnUnknownTokenDoesNothing) {
  listen();
  peer->socket.send(golden("c_cancel"));
  EXPECT_EQ(answer_to("fill"), to_hex(golden("server_reply")));
}

}  // namespace
}  // namespace tolk::test
