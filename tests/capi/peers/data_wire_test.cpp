// Data beside calls and answers, and the failures that an end finds by itself, byte for byte.
#include "raw_ends.h"
#include "tests/e2e/support/golden.h"

namespace tolk::test {
namespace {

constexpr int kDataCallId = 5;
constexpr char kPiecesPeer[] = "cancel describe pieces";
constexpr char kThreeBytes[] = "abc";

std::string golden_hex(const char* name) { return to_hex(golden(name)); }

std::string hex_of_frame(const std::optional<std::string>& payload) {
  return payload ? to_hex(frame(*payload)) : "nothing came";
}

// Records with what an end chooses by itself replaced. Empty if the raw writer does not write them
// as they came.
std::optional<std::string> masked_records(std::string_view bytes, bool is_nested) {
  const auto block = read_block(bytes);
  if (!block) return std::nullopt;
  BlockWriter same;
  BlockWriter masked;
  for (const auto& [key, value] : block->keyed) {
    same.keyed(key, value);
    Scalar replaced = value;
    if (key == "s_c_sw_semid") replaced = "0x1";
    if (key == "s_c_sw_threadid" || key == "tolk.transfer") replaced = kDataCallId;
    if (key == "s_c_sw_data" && !is_nested) {
      const auto inner = masked_records(std::get<Stream>(value).bytes, true);
      if (!inner) return std::nullopt;
      replaced = Stream{*inner};
    }
    masked.keyed(key, replaced);
  }
  for (const auto& value : block->values) {
    same.add(std::get<Scalar>(value));
    masked.add(std::get<Scalar>(value));
  }
  if (same.bytes() != bytes) return std::nullopt;
  return masked.bytes();
}

std::string shown_piece(const std::optional<Message>& piece) {
  const auto masked = piece ? masked_records(piece->payload, false) : std::nullopt;
  return masked ? to_hex(frame(*masked)) : hex_of_frame(piece ? piece->payload : "");
}

Owned<tolk_block> seven_and_ok() {
  Owned<tolk_block> block(tolk_block_new());
  tolk_block_add_int(block.get(), 7);
  tolk_block_add_key(block.get(), "ok");
  tolk_block_add_bool(block.get(), true);
  return block;
}

tolk_source* three_bytes() { return tolk_source_memory(kThreeBytes, 3, nullptr, nullptr); }

// "sum" expects the data and the other arguments.
void add_data_methods(Methods& methods) {
  methods.add("sum", [](tolk_request* request) {
    const tolk_block* const in = tolk_request_arguments(request);
    EXPECT_EQ(text_of(in), kThreeBytes);
    EXPECT_EQ(tolk_block_int(in, 1), 7);
    EXPECT_TRUE(tolk_block_bool(in, tolk_block_find(in, "ok")));
    EXPECT_GT(tolk_request_limit_left(request), 0);
    tolk_request_answer(request, seven_and_ok().release());
  });
  methods.add("give", [](tolk_request* request) {
    tolk_request_answer_data(request, seven_and_ok().release(), three_bytes());
  });
  methods.add("value", [](tolk_request* request) {
    tolk_request_answer(request, text_block("no event: sum").release());
  });
}

std::string first_piece_of_answer(const std::string& token) {
  return frame(call_payload("tolk.piece", kDataCallId,
                            BlockWriter()
                                .keyed("tolk.transfer", kDataCallId)
                                .keyed("tolk.token", token)
                                .keyed("tolk.offset", 0.0)
                                .keyed("tolk.total", 3.0)
                                .add(Stream{})
                                .bytes(),
                            "0x1"));
}

// The other end of either kind, on a plain socket.
class DataWire : public OverTransports {
 protected:
  void SetUp() override { add_data_methods(methods); }

  void connect(tolk_client_options options = {}) {
    raw_server =
        std::make_unique<RawServer>(address, replying(BlockWriter()
                                                          .add(true)
                                                          .keyed("VERSION", kVersion)
                                                          .keyed("tolk.features", kPiecesPeer)));
    client = c_client(address, methods, options);
    ASSERT_NE(client, nullptr);
    peer = raw_server->take();
    ASSERT_TRUE(peer.is_open());
  }
  void listen(tolk_server_options options = {}) {
    server = c_server(address, methods, options);
    ASSERT_NE(server, nullptr);
    peer = RawSocket::connect_to(address);
    const std::string question = call_payload("s_c_version", 1, version_arguments(), "0x1");
    peer.send_frame(question +
                    BlockWriter(question.size()).keyed("tolk.features", kPiecesPeer).bytes());
    ASSERT_TRUE(peer.read_frame());
  }
  std::string answer_to(const std::string& frame_bytes) {
    peer.send(frame_bytes);
    return hex_of_frame(peer.read_frame());
  }
  std::string answer_to_call(const char* method) {
    return answer_to(frame(call_payload(method, kDataCallId, {}, "0x1")));
  }
  void confirm(const std::optional<Message>& piece, double done) {
    ASSERT_TRUE(piece);
    peer.send_frame(reply_payload(*piece, BlockWriter().keyed("tolk.done", done)));
  }
  // The answer to a call of "give", whose last frame is `reply`.
  void expect_data_of_answer(const char* reply) {
    peer.send_frame(call_payload("give", kDataCallId, {}, "0x1"));
    auto piece = peer.read_message();
    EXPECT_EQ(shown_piece(piece), golden_hex("c_first_piece_of_answer"));
    confirm(piece, 0);
    piece = peer.read_message();
    EXPECT_EQ(shown_piece(piece), golden_hex("c_last_piece_of_answer"));
    confirm(piece, 3);
    EXPECT_EQ(hex_of_frame(peer.read_frame()), golden_hex(reply));
  }
  // A call that is kept until the end of the test.
  void keep_a_call() {
    methods.add("keep", [this](tolk_request* request) {
      kept = request;
      has_come.set();
    });
  }

  Methods methods;
  std::unique_ptr<RawServer> raw_server;
  RawSocket peer;
  Owned<tolk_server> server;
  Owned<tolk_client> client;
  tolk_request* kept = nullptr;
  Event has_come;
};
TOLK_CAPI_OVER_TRANSPORTS(DataWire);

TEST_P(DataWire, DataOfACallTravelInPieces) {
  connect();
  const auto arguments = seven_and_ok();
  tolk_call call = call_of("sum", nullptr, 1500);
  call.arguments = arguments.get();
  call.source = three_bytes();
  const uint64_t number = tolk_client_start(client.get(), &call);
  auto piece = peer.read_message();
  EXPECT_EQ(shown_piece(piece), golden_hex("c_first_piece"));
  confirm(piece, 0);
  piece = peer.read_message();
  EXPECT_EQ(shown_piece(piece), golden_hex("c_last_piece"));
  ASSERT_TRUE(piece);
  peer.send_frame(reply_payload(*piece, BlockWriter().add(9)));
  tolk_block* result = nullptr;
  EXPECT_EQ(tolk_client_wait(client.get(), number, &result, nullptr), TOLK_OK);
  EXPECT_EQ(tolk_block_int(result, 0), 9);
  tolk_block_free(result);
}

TEST_P(DataWire, AServerTakesPieces) {
  listen();
  EXPECT_EQ(answer_to(golden("c_first_piece")), golden_hex("c_server_confirms_piece"));
  EXPECT_EQ(answer_to(golden("c_last_piece")), golden_hex("server_reply"));
}

TEST_P(DataWire, AClientTakesPieces) {
  connect();
  EXPECT_EQ(answer_to(golden("c_first_piece")), golden_hex("c_client_confirms_piece"));
  EXPECT_EQ(answer_to(golden("c_last_piece")), golden_hex("client_reply"));
}

TEST_P(DataWire, AServersDataComeBeforeItsReply) {
  listen();
  expect_data_of_answer("c_server_reply_with_data");
}

TEST_P(DataWire, AClientsDataComeBeforeItsReply) {
  connect();
  expect_data_of_answer("c_client_reply_with_data");
}

TEST_P(DataWire, AResultThatReadsAsNoEventIsMarked) {
  listen();
  EXPECT_EQ(answer_to_call("value"), golden_hex("c_server_reply_with_value"));
}

TEST_P(DataWire, AResultOfAClientThatReadsAsNoEventIsMarked) {
  connect();
  EXPECT_EQ(answer_to_call("value"), golden_hex("c_client_reply_with_value"));
}

TEST_P(DataWire, ABusyClientSaysSo) {
  keep_a_call();
  tolk_client_options options{};
  options.most_requests = 1;
  connect(options);
  peer.send_frame(call_payload("keep", 1, {}, "0x2"));
  has_come.wait();
  EXPECT_EQ(answer_to_call("value"), golden_hex("c_client_busy_reply"));
  tolk_request_free(kept);
}

// The handler is waited for, so that the connection stays.
TEST_P(DataWire, AClosingServerSaysSo) {
  Event may_return;
  methods.add("wait", [&](tolk_request* request) {
    has_come.set();
    may_return.wait();
    tolk_request_free(request);
  });
  listen();
  peer.send_frame(call_payload("wait", 1, {}, {}));
  has_come.wait();
  std::thread closing([&] { tolk_server_close(server.get(), TOLK_FOREVER); });
  std::string answer;
  // A call before the close is answered by the method.
  EXPECT_TRUE(eventually([&] {
    answer = answer_to_call("value");
    return answer != golden_hex("c_server_reply_with_value");
  }));
  EXPECT_EQ(answer, golden_hex("c_server_closing_reply"));
  may_return.set();
  closing.join();
}

TEST_P(DataWire, AClosingClientSaysSo) {
  Event may_return;
  methods.add("wait", [&](tolk_request* request) {
    has_come.set();
    may_return.wait();
    tolk_request_free(request);
  });
  connect();
  peer.send_frame(call_payload("wait", 1, {}, "0x2"));
  has_come.wait();
  std::thread closing([&] { tolk_client_close(client.get(), TOLK_FOREVER); });
  std::string answer;
  EXPECT_TRUE(eventually([&] {
    answer = answer_to_call("value");
    return answer != golden_hex("c_client_reply_with_value");
  }));
  EXPECT_EQ(answer, golden_hex("c_client_closing_reply"));
  may_return.set();
  closing.join();
}

TEST_P(DataWire, AMethodsProgressCancelsTheDataOfACall) {
  methods = Methods();
  tolk_method_options options{};
  options.size = sizeof options;
  options.progress = [](void*, uint64_t done, uint64_t) { return done == 0; };
  tolk_methods_add(
      methods.get(), "sum", [](void*, tolk_request* request) { tolk_request_free(request); },
      nullptr, &options, nullptr);
  listen();
  EXPECT_EQ(answer_to(golden("c_first_piece")), golden_hex("c_server_confirms_piece"));
  EXPECT_EQ(answer_to(golden("c_last_piece")), golden_hex("c_server_cancelled_reply"));
}

TEST_P(DataWire, AServerTellsThatTheDataAreTooLarge) {
  tolk_server_options options{};
  options.most_data_bytes = 2;
  listen(options);
  EXPECT_EQ(answer_to(golden("c_first_piece")), golden_hex("c_server_large_reply"));
}

TEST_P(DataWire, AClientTellsThatTheDataAreTooLarge) {
  tolk_client_options options{};
  options.most_data_bytes = 2;
  connect(options);
  tolk_call call = call_of("give", nullptr, TOLK_FOREVER);
  const uint64_t number = tolk_client_start(client.get(), &call);
  const auto question = peer.read_message();
  ASSERT_TRUE(question && question->token());
  EXPECT_EQ(answer_to(first_piece_of_answer(*question->token())),
            golden_hex("c_client_large_reply"));
  EXPECT_EQ(tolk_client_wait(client.get(), number, nullptr, nullptr), TOLK_TOO_LARGE);
}

// Data of an answer come before those of the call have arrived, which no peer of the library sends.
TEST_P(DataWire, ProgressOfACallRunsOnceAtATime) {
  constexpr std::size_t kSize = std::size_t{300} << 10;  // two pieces
  struct Reports {
    std::atomic<int> running{0};
    std::atomic<bool> overlapped{false};
    Event first_runs;
    Event may_return;
  } reports;
  connect();
  const std::string data(kSize, 'x');
  tolk_call call = call_of("take", nullptr, TOLK_FOREVER);
  call.source = tolk_source_memory(data.data(), data.size(), nullptr, nullptr);
  call.context = &reports;
  call.progress = [](void* context, std::uint64_t done, std::uint64_t total) {
    auto& all = *static_cast<Reports*>(context);
    if (++all.running > 1) all.overlapped = true;
    if (total == kSize && done != 0) {
      all.first_runs.set();
      all.may_return.wait();
    }
    --all.running;
    return true;
  };
  const uint64_t number = tolk_client_start(client.get(), &call);
  confirm(peer.read_message(), 0);
  const auto piece = peer.read_message();
  ASSERT_TRUE(piece && piece->token());
  confirm(piece, 256 << 10);
  reports.first_runs.wait();
  peer.send(first_piece_of_answer(*piece->token()));
  EXPECT_TRUE(peer.read_message());  // confirms it
  reports.may_return.set();
  EXPECT_TRUE(peer.read_message());
  peer.close();
  EXPECT_EQ(tolk_client_wait(client.get(), number, nullptr, nullptr), TOLK_GONE);
  EXPECT_FALSE(reports.overlapped);
}

TEST_P(DataWire, APieceForACallThatHasEndedIsRefused) {
  connect();
  EXPECT_EQ(answer_to(golden("c_first_piece_of_answer")), golden_hex("c_client_cancelled_reply"));
}

}  // namespace
}  // namespace tolk::test
