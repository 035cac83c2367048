// Hosts of the C interface and hosts of the C++ layer: of this version, which is built on the C
// interface, and of earlier ones, which are not.
#include "raw_ends.h"
#include "tests/e2e/support/golden.h"
#include "tests/layer/joined.h"

namespace tolk::test {
namespace {

// What handlers of the one say is what callers of the other hear.
class CapiAndLayer : public OverTransports {};
TOLK_CAPI_OVER_TRANSPORTS(CapiAndLayer);

TEST_P(CapiAndLayer, ACClientHearsTheHandlersOfALayerServer) {
  Counter posted;
  Server server;
  server.on("twice", [](std::string text) { return text + text; });
  server.on("fail", []() -> std::string { throw std::runtime_error("because"); });
  server.on("note", [posted]() mutable { posted.add(); });
  server.listen(layered(address));
  const Methods methods;
  const auto client = c_client(address, methods);
  ASSERT_NE(client, nullptr);
  EXPECT_EQ(call_client(client.get(), "twice", "ab").text, "abab");
  tolk_error* error = nullptr;
  EXPECT_EQ(tolk_client_call(client.get(), "fail", nullptr, 0, nullptr, &error), TOLK_FAILED);
  EXPECT_STREQ(tolk_error_reason(error), "because");
  tolk_error_free(error);
  EXPECT_EQ(tolk_client_call(client.get(), "twice", nullptr, 0, nullptr, &error),
            TOLK_WRONG_ARGUMENTS);
  EXPECT_STREQ(tolk_error_reason(error), "takes 1 argument, got 0");
  tolk_error_free(error);
  EXPECT_EQ(call_client(client.get(), "absent", "").status, TOLK_NO_METHOD);
  EXPECT_EQ(tolk_client_post(client.get(), "note", nullptr, 0, nullptr), TOLK_OK);
  EXPECT_TRUE(posted.wait_for(1));
}

TEST_P(CapiAndLayer, ALayerServerHearsTheHandlersOfACClient) {
  Server server;
  server.on("here", [](const Caller& caller) { return caller.id(); });
  server.listen(layered(address));
  Counter posted;
  Methods methods;
  methods.add_echo();
  methods.add("fail", [](tolk_request* request) {
    tolk_request_fail(request, TOLK_FAILED, 3, "because", nullptr);
  });
  methods.add("note", [&](tolk_request* request) {
    posted.add();
    tolk_request_answer(request, nullptr);
  });
  auto client = c_client(address, methods);
  ASSERT_NE(client, nullptr);
  tolk_block* result = nullptr;
  ASSERT_EQ(tolk_client_call(client.get(), "here", nullptr, 0, &result, nullptr), TOLK_OK);
  const auto id = static_cast<std::uint64_t>(tolk_block_int(result, 0));
  tolk_block_free(result);
  EXPECT_EQ(server.call<std::string>(id, "echo", "ab").value(), "ab");
  const auto failed = server.call<std::string>(id, "fail");
  EXPECT_EQ(failed.error().code(), Errc::handler_failed);
  EXPECT_EQ(failed.error().detail(), "because");
  EXPECT_EQ(server.call<int>(id, "absent").error().code(), Errc::no_such_method);
  EXPECT_TRUE(server.post(id, "note"));
  EXPECT_TRUE(posted.wait_for(1));
  client.reset();
}

TEST_P(CapiAndLayer, ALayerClientHearsTheHandlersOfACServer) {
  Counter posted;
  Methods methods;
  methods.add_echo();
  methods.add("fail", [](tolk_request* request) {
    tolk_request_fail(request, TOLK_FAILED, 3, "because", nullptr);
  });
  methods.add("wrong", [](tolk_request* request) {
    tolk_request_fail(request, TOLK_WRONG_ARGUMENTS, 0, "two numbers", nullptr);
  });
  methods.add("note", [&](tolk_request* request) {
    posted.add();
    tolk_request_answer(request, nullptr);
  });
  auto server = c_server(address, methods);
  ASSERT_NE(server, nullptr);
  Client client = connect(layered(address));
  EXPECT_EQ(client.call<std::string>("echo", "ab").value(), "ab");
  EXPECT_EQ(client.call<std::string>("fail").error().detail(), "because");
  EXPECT_EQ(client.call<std::string>("wrong").error().code(), Errc::wrong_arguments);
  EXPECT_EQ(client.call<int>("absent").error().code(), Errc::no_such_method);
  EXPECT_TRUE(client.describe());
  EXPECT_TRUE(client.post("note"));
  EXPECT_TRUE(posted.wait_for(1));
  server.reset();
  EXPECT_FALSE(client.call<std::string>("echo", "ab"));
}

TEST_P(CapiAndLayer, ACServerHearsTheHandlersOfALayerClient) {
  const Methods methods;
  const auto server = c_server(address, methods);
  ASSERT_NE(server, nullptr);
  Counter posted;
  Client client = connect(layered(address));
  client.on("twice", [](std::string text) { return text + text; });
  client.on("fail", []() -> std::string { throw std::runtime_error("because"); });
  client.on("note", [posted]() mutable { posted.add(); });
  uint64_t id = 0;
  ASSERT_EQ(tolk_server_clients(server.get(), &id, 1), 1U);
  EXPECT_EQ(call_server(server.get(), id, "twice", "ab").text, "abab");
  tolk_error* error = nullptr;
  EXPECT_EQ(tolk_server_call(server.get(), id, "fail", nullptr, 0, nullptr, &error), TOLK_FAILED);
  EXPECT_STREQ(tolk_error_reason(error), "because");
  tolk_error_free(error);
  EXPECT_EQ(tolk_server_post(server.get(), id, "note", nullptr, 0, nullptr), TOLK_OK);
  EXPECT_TRUE(posted.wait_for(1));
}

// A peer with an earlier version of the layer, on a plain socket. It names no features, each piece
// that it sends is a call of its own, and the other arguments come with the last one.
class CapiAndEarlierLayer : public OverTransports {
 protected:
  static constexpr int kCallId = 5;

  void greet() {
    RawClient greeted(address);
    ASSERT_TRUE(greeted.is_greeted());
    peer = std::move(greeted.socket);
  }
  void listen() {
    server = c_server(address, methods);
    ASSERT_NE(server, nullptr);
    greet();
  }
  void connect_c_client() {
    raw_server = std::make_unique<RawServer>(address);
    client = c_client(address, methods);
    ASSERT_NE(client, nullptr);
    peer = raw_server->take();
    ASSERT_TRUE(peer.is_open());
  }

  static Owned<tolk_block> seven() {
    Owned<tolk_block> block(tolk_block_new());
    tolk_block_add_int(block.get(), 7);
    tolk_block_add_key(block.get(), "ok");
    tolk_block_add_bool(block.get(), true);
    return block;
  }
  // "sum" expects the data and the other arguments.
  void add_methods_of_data() {
    methods.add("sum", [](tolk_request* request) {
      const tolk_block* const in = tolk_request_arguments(request);
      EXPECT_STREQ(tolk_request_method(request), "sum");
      EXPECT_EQ(tolk_block_total(in), 3U);
      EXPECT_EQ(tolk_block_kind(in, 0), TOLK_BYTES);
      EXPECT_EQ(text_of(in), "abc");
      EXPECT_EQ(tolk_block_int(in, 1), 7);
      EXPECT_EQ(tolk_block_find(in, "ok"), 2U);
      EXPECT_TRUE(tolk_block_bool(in, 2));
      EXPECT_EQ(tolk_request_limit_left(request), TOLK_FOREVER);
      tolk_request_answer(request, seven().release());
    });
    methods.add("wrong", [](tolk_request* request) {
      tolk_request_fail(request, TOLK_WRONG_ARGUMENTS, 0, "two numbers", nullptr);
    });
    methods.add("give", [](tolk_request* request) {
      tolk_request_answer_data(request, seven().release(),
                               tolk_source_memory("abc", 3, nullptr, nullptr));
    });
  }
  void add_described_methods() {
    const auto handler = [](void*, tolk_request* request) { tolk_request_free(request); };
    tolk_method_options options{};
    options.size = sizeof options;
    options.signature = "(int, int) -> int";
    options.about = "Adds two numbers.";
    tolk_methods_add(methods.get(), "add", handler, nullptr, &options, nullptr);
    tolk_methods_add(methods.get(), "sum", handler, nullptr, nullptr, nullptr);
  }

  // What the peer sends.
  static std::string piece(const char* method, int transfer, double offset,
                           const std::string& bytes, const std::string& token) {
    const BlockWriter block = BlockWriter()
                                  .keyed("tolk.transfer", transfer)
                                  .keyed("tolk.method", method)
                                  .keyed("tolk.offset", offset)
                                  .keyed("tolk.total", 3.0)
                                  .add(Stream{bytes});
    return frame(call_payload("tolk.piece", kCallId, block.bytes(), token));
  }
  static std::string question(const char* method) {
    return frame(call_payload(method, kCallId, {}, "0x1"));
  }
  std::string answer_to(const std::string& frame_bytes) {
    peer.send(frame_bytes);
    const auto payload = peer.read_frame();
    return payload ? to_hex(frame(*payload)) : "nothing came";
  }

  // What it gets.
  static std::string hex_of(const char* golden_name) { return to_hex(golden(golden_name)); }
  static std::string hex_of(const BlockWriter& reply) { return to_hex(frame(reply.bytes())); }
  static BlockWriter of_server(BlockWriter values, const char* token, int call_id = kCallId) {
    return values.keyed("s_c_sw_name", "retval")
        .keyed("s_c_sw_threadid", call_id)
        .keyed("s_c_sw_semid", token);
  }
  static BlockWriter of_client(BlockWriter values, const char* token, int call_id = kCallId) {
    return values.keyed("s_c_sw_threadid", call_id)
        .keyed("s_c_sw_semid", token)
        .keyed("s_c_sw_name", "retval");
  }
  static std::string confirmed(double done, const char* token) {
    return hex_of(of_server(BlockWriter().keyed("tolk.done", done), token));
  }

  // Of the C end.
  uint64_t start(tolk_call call) {
    if (client) return tolk_client_start(client.get(), &call);
    EXPECT_EQ(tolk_server_clients(server.get(), &call.client, 1), 1U);
    return tolk_server_start(server.get(), &call);
  }
  tolk_status wait(uint64_t number, tolk_block** result, tolk_error** error) {
    return client ? tolk_client_wait(client.get(), number, result, error)
                  : tolk_server_wait(server.get(), number, result, error);
  }
  // What the caller of "ask" hears when the peer answers with `values`.
  std::string heard(const BlockWriter& values) {
    const uint64_t number = start(call_of("ask", nullptr, TOLK_FOREVER));
    const auto asked = peer.read_message();
    if (!asked || !asked->token() || !asked->call_id()) return "nothing came";
    const auto reply = client ? of_server : of_client;
    peer.send_frame(reply(values, asked->token()->c_str(), *asked->call_id()).bytes());
    tolk_block* result = nullptr;
    tolk_error* error = nullptr;
    const tolk_status status = wait(number, &result, &error);
    const Owned<tolk_block> owned_result(result);
    const Owned<tolk_error> owned_error(error);
    std::string text = tolk_status_name(status);
    if (status != TOLK_OK) {
      EXPECT_EQ(tolk_error_code(error), 0);
      EXPECT_EQ(tolk_error_details(error), nullptr);
      return text + ": " + tolk_error_reason(error);
    }
    for (std::size_t i = 0; i < tolk_block_total(result); ++i) {
      const char* const string = tolk_block_text(result, i, nullptr);
      const bool is_int = tolk_block_kind(result, i) == TOLK_INT;
      text += is_int ? " " + std::to_string(tolk_block_int(result, i))
                     : " \"" + std::string(string == nullptr ? "" : string) + "\"";
    }
    return text;
  }
  void expect_that_failures_are_heard() {
    EXPECT_EQ(heard(BlockWriter().keyed("tolk.error", "because")), "failed: because");
    EXPECT_EQ(heard(BlockWriter().keyed("tolk.error", "two").keyed("tolk.kind", "arguments")),
              "wrong_arguments: two");
    EXPECT_EQ(heard(BlockWriter().add("no event: ask").keyed("tolk.value", true)),
              "ok \"no event: ask\"");
    EXPECT_EQ(heard(BlockWriter().add("no event: ask")), "no_method: no such method");
  }
  void expect_data_in_one_message() {
    const auto arguments = seven();
    tolk_call call = call_of("sum", nullptr, 1500);
    call.arguments = arguments.get();
    call.source = tolk_source_memory("abc", 3, nullptr, nullptr);
    const uint64_t number = start(call);
    const auto message = peer.read_message();
    ASSERT_TRUE(message);
    EXPECT_EQ(message->name(), "sum");
    EXPECT_THAT(message->keys(), testing::ElementsAre("s_c_sw_name", "s_c_sw_threadid",
                                                      "s_c_sw_data", "s_c_sw_semid"));
    EXPECT_EQ(message->arguments(),
              BlockWriter().add(Stream{"abc"}).add(7).keyed("ok", true).bytes());
    peer.send_frame(reply_payload(*message, BlockWriter().add(9)));
    tolk_block* result = nullptr;
    EXPECT_EQ(wait(number, &result, nullptr), TOLK_OK);
    EXPECT_EQ(tolk_block_int(result, 0), 9);
    tolk_block_free(result);
  }

  Counter dropped;
  Methods methods;
  std::unique_ptr<RawServer> raw_server;
  RawSocket peer;
  Owned<tolk_server> server;
  Owned<tolk_client> client;
};
TOLK_CAPI_OVER_TRANSPORTS(CapiAndEarlierLayer);

TEST_P(CapiAndEarlierLayer, ItsLastPieceHasTheArgumentsForAServersMethod) {
  add_methods_of_data();
  listen();
  EXPECT_EQ(answer_to(golden("layer_first_piece")), hex_of("c_server_confirms_piece"));
  EXPECT_EQ(answer_to(golden("layer_last_piece")),
            hex_of(of_server(BlockWriter().add(7).keyed("ok", true), "0x2")));
}

TEST_P(CapiAndEarlierLayer, ItsLastPieceHasTheArgumentsForAClientsMethod) {
  add_methods_of_data();
  connect_c_client();
  EXPECT_EQ(answer_to(golden("layer_first_piece")), hex_of("c_client_confirms_piece"));
  EXPECT_EQ(answer_to(golden("layer_last_piece")),
            hex_of(of_client(BlockWriter().add(7).keyed("ok", true), "0x2")));
}

TEST_P(CapiAndEarlierLayer, ItsLastPieceHasTheArgumentsForAHandlerOfThisLayer) {
  Server of_layer;
  of_layer.on("sum", [](const std::string& data, int number, named<"ok", bool> ok) {
    return data + " " + std::to_string(number) + (ok.value ? " ok" : "");
  });
  of_layer.listen(layered(address));
  greet();
  EXPECT_EQ(answer_to(golden("layer_first_piece")), hex_of("c_server_confirms_piece"));
  EXPECT_EQ(answer_to(golden("layer_last_piece")),
            hex_of(of_server(BlockWriter().add("abc 7 ok"), "0x2")));
}

TEST_P(CapiAndEarlierLayer, ItsPiecesAreJoinedByTheNumberOfTheTransfer) {
  methods.add_echo();
  listen();
  EXPECT_EQ(answer_to(piece("echo", 1, 0, "", "0x1")), confirmed(0, "0x1"));
  EXPECT_EQ(answer_to(piece("echo", 2, 0, "", "0x2")), confirmed(0, "0x2"));
  EXPECT_EQ(answer_to(piece("echo", 1, 0, "a", "0x3")), confirmed(1, "0x3"));
  EXPECT_EQ(answer_to(piece("echo", 2, 0, "de", "0x4")), confirmed(2, "0x4"));
  EXPECT_EQ(answer_to(piece("echo", 1, 1, "bc", "0x5")),
            hex_of(of_server(BlockWriter().add("abc"), "0x5")));
  EXPECT_EQ(answer_to(piece("echo", 2, 2, "f", "0x6")),
            hex_of(of_server(BlockWriter().add("def"), "0x6")));
}

TEST_P(CapiAndEarlierLayer, ItHearsWhyTheMethodFailsWithTheLastPiece) {
  add_methods_of_data();
  listen();
  EXPECT_EQ(answer_to(piece("wrong", 1, 0, "", "0x1")), confirmed(0, "0x1"));
  EXPECT_EQ(
      answer_to(piece("wrong", 1, 0, "abc", "0x2")),
      hex_of(
          of_server({}, "0x2").keyed("tolk.error", "two numbers").keyed("tolk.kind", "arguments")));
}

// The kind tells it that the data are not to be sent in one call.
TEST_P(CapiAndEarlierLayer, ItHearsThatAServerHasNoMethodWithTheFirstPiece) {
  listen();
  EXPECT_EQ(answer_to(piece("foo", 1, 0, "", "0x1")), hex_of("c_server_no_method_reply"));
}

TEST_P(CapiAndEarlierLayer, ItHearsThatAClientHasNoMethodWithTheFirstPiece) {
  connect_c_client();
  EXPECT_EQ(answer_to(piece("foo", 1, 0, "", "0x1")), hex_of("c_client_no_method_reply"));
}

TEST_P(CapiAndEarlierLayer, APieceThatContinuesNothingIsRefused) {
  methods.add_echo();
  listen();
  const auto missing = [](const char* token) {
    return hex_of(of_server({}, token).keyed("tolk.error", "a piece is missing"));
  };
  EXPECT_EQ(answer_to(piece("echo", 1, 0, "abc", "0x1")), missing("0x1"));
  EXPECT_EQ(answer_to(piece("echo", 2, 0, "", "0x2")), confirmed(0, "0x2"));
  EXPECT_EQ(answer_to(piece("echo", 2, 1, "bc", "0x3")), missing("0x3"));
  EXPECT_EQ(answer_to(piece("echo", 3, 0, "", "0x4")), confirmed(0, "0x4"));
}

// Its cancel is posted: the next frame that it gets answers its next call.
TEST_P(CapiAndEarlierLayer, ItsCancelEndsTheTransfer) {
  tolk_method_options options{};
  options.size = sizeof options;
  options.accept = [](void* context, const tolk_request*, uint64_t, tolk_sink** sink) {
    const auto drop = [](void* counter) { static_cast<Counter*>(counter)->add(); };
    const auto write = [](void*, const void*, size_t) { return true; };
    *sink = tolk_sink_callback(write, context, drop);
    return TOLK_OK;
  };
  const auto never = [](void*, tolk_request* request) {
    ADD_FAILURE() << "the data are not complete";
    tolk_request_free(request);
  };
  ASSERT_EQ(tolk_methods_add(methods.get(), "sum", never, &dropped, &options, nullptr), TOLK_OK);
  listen();
  EXPECT_EQ(answer_to(golden("layer_first_piece")), hex_of("c_server_confirms_piece"));
  EXPECT_EQ(answer_to(piece("sum", 5, 0, "ab", "0x2")), confirmed(2, "0x2"));
  EXPECT_EQ(dropped.value(), 0);
  peer.send(golden("layer_cancel"));
  EXPECT_TRUE(dropped.wait_for(1));
  EXPECT_EQ(answer_to(question("foo")), hex_of("c_server_no_method_reply"));
}

TEST_P(CapiAndEarlierLayer, AServerTellsItsMethodsInThreeLists) {
  add_described_methods();
  listen();
  EXPECT_EQ(answer_to(golden("c_describe")), hex_of("c_server_describe_reply"));
}

TEST_P(CapiAndEarlierLayer, AClientTellsItsMethodsInThreeLists) {
  add_described_methods();
  connect_c_client();
  EXPECT_EQ(answer_to(golden("c_describe")), hex_of("c_client_describe_reply"));
}

// Its keys come before the envelope.
TEST_P(CapiAndEarlierLayer, FailuresOfItsServerAreHeard) {
  connect_c_client();
  expect_that_failures_are_heard();
}

TEST_P(CapiAndEarlierLayer, FailuresOfItsClientAreHeard) {
  listen();
  expect_that_failures_are_heard();
}

// Its library adds the last value.
TEST_P(CapiAndEarlierLayer, AnswersOfItsCatchAllAreResultsOrFailures) {
  connect_c_client();
  const auto from_catch_all = [](BlockWriter values) {
    return values.keyed("tolk.value", 1).add("no event: ask");
  };
  EXPECT_EQ(heard(from_catch_all(BlockWriter().add(7))), "ok 7 \"no event: ask\"");
  EXPECT_EQ(heard(from_catch_all({})), "ok \"no event: ask\"");
  EXPECT_EQ(heard(from_catch_all(BlockWriter().keyed("tolk.error", "because"))), "failed: because");
}

TEST_P(CapiAndEarlierLayer, ItsServerGetsDataInOneMessage) {
  connect_c_client();
  expect_data_in_one_message();
}

TEST_P(CapiAndEarlierLayer, ItsClientGetsDataInOneMessage) {
  listen();
  expect_data_in_one_message();
}

TEST_P(CapiAndEarlierLayer, AServerAnswersItWithDataInOneMessage) {
  add_methods_of_data();
  listen();
  EXPECT_EQ(answer_to(question("give")),
            hex_of(of_server(BlockWriter().add(Stream{"abc"}).add(7).keyed("ok", true), "0x1")));
}

TEST_P(CapiAndEarlierLayer, AClientAnswersItWithDataInOneMessage) {
  add_methods_of_data();
  connect_c_client();
  EXPECT_EQ(answer_to(question("give")),
            hex_of(of_client(BlockWriter().add(Stream{"abc"}).add(7).keyed("ok", true), "0x1")));
}

// It has named no features.
TEST_P(CapiAndEarlierLayer, ItsServerIsNotAskedForItsMethods) {
  connect_c_client();
  EXPECT_EQ(call_client(client.get(), "tolk.describe", "").status, TOLK_NO_METHOD);
  start(call_of("next", nullptr, TOLK_FOREVER));
  const auto first = peer.read_message();
  ASSERT_TRUE(first);
  EXPECT_EQ(first->name(), "next");
}

}  // namespace
}  // namespace tolk::test
