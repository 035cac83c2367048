// Peers that send what no peer of the library sends, to a server and to a client of the C
// interface: memory stays bounded, and others are served meanwhile.
#include <random>

#include "raw_ends.h"
#include "tests/e2e/support/process_state.h"

namespace tolk::test {
namespace {

constexpr int kMiB = 1 << 20;
constexpr char kTwoGigabytes[] = "\xfb\xff\xff\x7f";  // the most that a frame may have

std::string echo_call(const std::string& token = "0x7") {
  return call_payload("echo", 3, BlockWriter().add("ping").bytes(), token);
}

class HostileToCapiServer : public OverTransports {
 protected:
  // A request may arrive until the server is closed.
  void TearDown() override {
    server.reset();
    release();
  }

  // "keep" holds its requests until the end.
  void listen(tolk_server_options options = {}) {
    methods.add_echo();
    methods.add(
        "keep",
        [this](tolk_request* request) {
          const std::lock_guard lock(mutex);
          kept.push_back(request);
        },
        TOLK_INLINE);
    methods.add("large", [](tolk_request* request) {
      tolk_request_answer(request, text_block(std::string(kMiB, 'x')).release());
    });
    server = c_server(address, methods, options);
    bystander = std::make_unique<RawClient>(address);
    ASSERT_TRUE(bystander->is_greeted());
  }
  void release() {
    const std::lock_guard lock(mutex);
    for (tolk_request* const request : kept) tolk_request_free(request);
    kept.clear();
  }
  std::size_t count_kept() {
    const std::lock_guard lock(mutex);
    return kept.size();
  }
  // The bystander's calls are answered.
  bool serves() {
    for (int i = 0; i < 20; ++i) {
      const auto answer = bystander->call("echo", 1, BlockWriter().add("ping").bytes());
      if (!answer || answer->string_at(0) != "ping") return false;
    }
    return true;
  }

  // 128 MiB would be in memory if the server read on.
  void expect_that_a_flood_is_not_read(const tolk_server_options& options) {
    listen(options);
    RawClient peer(address);
    const long before = resident_kib();
    const std::string arguments =
        BlockWriter().add(Stream{std::string(std::size_t{128} << 10, 'x')}).bytes();
    const std::string flood = frame(call_payload("keep", 3, arguments, "0x7"));
    int sent = 0;
    for (; sent < 8; ++sent) ASSERT_TRUE(peer.socket.send(flood));
    EXPECT_TRUE(eventually([&] { return count_kept() >= 8; }));
    while (sent < 1024 && peer.socket.send(flood, Milliseconds(200))) ++sent;
    EXPECT_LT(sent, 1024);
    EXPECT_TRUE(serves());
    EXPECT_LT(count_kept(), 64U);
    EXPECT_LT(resident_kib() - before, 32 * 1024);
  }

  std::mutex mutex;
  std::vector<tolk_request*> kept;
  Methods methods;
  Owned<tolk_server> server;
  std::unique_ptr<RawClient> bystander;
};
TOLK_CAPI_OVER_TRANSPORTS(HostileToCapiServer);

TEST_P(HostileToCapiServer, ANegativeLengthEndsTheConnection) {
  listen();
  RawClient peer(address);
  peer.socket.send(prefix(-1));
  EXPECT_TRUE(peer.socket.ended());
  EXPECT_TRUE(serves());
}

TEST_P(HostileToCapiServer, ALengthAboveTheBoundEndsTheConnection) {
  tolk_server_options options{};
  options.most_frame_bytes = 1000;
  listen(options);
  RawClient peer(address);
  const std::string fits = call_payload("echo", 3, BlockWriter().add("ping").bytes(), "0x7");
  peer.socket.send_frame(fits);
  EXPECT_TRUE(peer.socket.read_message());
  peer.socket.send(prefix(1001));
  EXPECT_TRUE(peer.socket.ended());
  EXPECT_TRUE(serves());
}

TEST_P(HostileToCapiServer, APromiseOfBytesTakesNoMemory) {
  listen();
  const long before = resident_kib();
  std::vector<std::unique_ptr<RawClient>> peers;
  for (int i = 0; i < 20; ++i) {
    peers.push_back(std::make_unique<RawClient>(address));
    peers.back()->socket.send(kTwoGigabytes);
    peers.back()->socket.send("some");
  }
  EXPECT_TRUE(serves());
  EXPECT_LT(resident_kib() - before, 64 * 1024);
}

TEST_P(HostileToCapiServer, AFrameThatIsCutOffAnywhereIsForgotten) {
  listen();
  const std::string whole = frame(echo_call());
  for (std::size_t size = 0; size < whole.size(); size += 5) {
    RawClient peer(address, false);
    ASSERT_TRUE(peer.socket.send(whole.substr(0, size)));
  }
  EXPECT_TRUE(serves());
  EXPECT_TRUE(eventually([&] { return tolk_server_clients(server.get(), nullptr, 0) == 1; }));
}

TEST_P(HostileToCapiServer, AMessageThatIsNoBlockIsNotAnswered) {
  listen();
  RawClient peer(address);
  for (const std::string& payload :
       {std::string(), std::string("?"), std::string(100, '\5'), std::string(100, '\0'),
        std::string("\6\xff\xff\xff\xff", 5), std::string("\4\xff\xff\xff\x7f", 5)}) {
    ASSERT_TRUE(peer.socket.send_frame(payload));
  }
  const auto answer = peer.call("echo", 9, BlockWriter().add("still").bytes());
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->string_at(0), "still");
  EXPECT_TRUE(serves());
}

TEST_P(HostileToCapiServer, ArgumentsThatAreNoBlockAreRefused) {
  listen();
  RawClient peer(address);
  for (const std::string& arguments :
       {std::string("?"), std::string("\3\xff\xff\xff\x7fx", 6), std::string("\0\7\0\0\0", 5)}) {
    const auto answer = peer.call("echo", 9, arguments);
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->text("tolk.kind"), "arguments");
    EXPECT_TRUE(answer->text("tolk.error"));
  }
  EXPECT_TRUE(serves());
}

TEST_P(HostileToCapiServer, RandomBytesDisturbNobody) {
  listen();
  std::mt19937 random(7);
  for (int i = 0; i < 100; ++i) {
    RawClient peer(address, i % 2 == 0);
    std::string bytes = frame(echo_call());
    for (int changes = 0; changes <= i % 7; ++changes) {
      bytes[random() % bytes.size()] = static_cast<char>(random());
    }
    peer.socket.send(bytes);
  }
  EXPECT_TRUE(serves());
  EXPECT_TRUE(eventually([&] { return tolk_server_clients(server.get(), nullptr, 0) == 1; }));
}

TEST_P(HostileToCapiServer, AFloodOfRequestsAboveTheQuotaIsNotRead) {
  tolk_server_options options{};
  options.most_client_requests = 8;
  expect_that_a_flood_is_not_read(options);
}

TEST_P(HostileToCapiServer, AFloodOfArgumentsAboveTheQuotaIsNotRead) {
  tolk_server_options options{};
  options.most_client_bytes = kMiB;
  expect_that_a_flood_is_not_read(options);
}

// What comes in one read with the request that reaches the quota waits as well.
TEST_P(HostileToCapiServer, NothingAboveTheQuotaBegins) {
  tolk_server_options options{};
  options.most_client_requests = 8;
  listen(options);
  RawClient peer(address);
  std::string calls;
  for (int i = 0; i < 200; ++i) calls += frame(call_payload("keep", 3, {}, "0x7"));
  ASSERT_TRUE(peer.socket.send(calls));
  for (std::size_t served = 0; served < 200;) {
    const std::size_t left = 200 - served;
    EXPECT_TRUE(eventually([&] { return count_kept() >= std::min<std::size_t>(left, 9); }));
    EXPECT_TRUE(serves());
    EXPECT_LE(count_kept(), 9U);
    served += count_kept();
    release();
  }
}

// 256 MiB of answers would be in memory if the server went on.
TEST_P(HostileToCapiServer, WhoReadsNoAnswersIsNotRead) {
  tolk_server_options options{};
  options.most_client_requests = 8;
  options.most_client_bytes = std::size_t{4} * kMiB;
  listen(options);
  RawClient peer(address);
  peer.socket.shrink_receive_buffer();
  const long before = resident_kib();
  const std::string call = frame(call_payload("large", 3, {}, "0x7"));
  for (int i = 0; i < 256 && peer.socket.send(call, Milliseconds(200));) ++i;
  EXPECT_TRUE(serves());
  EXPECT_LT(resident_kib() - before, 64 * 1024);
  peer.socket.close();
  EXPECT_TRUE(serves());
}

// Pieces of large calls that are never complete, each call with few of them.
TEST_P(HostileToCapiServer, WhoBeginsTooManyLargeCallsIsDisconnected) {
  tolk_server_options options{};
  options.most_data_bytes = kMiB;
  listen(options);
  RawClient peer(address);
  int sent = 0;
  for (; sent < 256; ++sent) {
    const std::string piece = BlockWriter()
                                  .add(2 * kMiB)
                                  .add(Stream{std::string(32768, 'x')})
                                  .keyed("s_c_largedata", true)
                                  .keyed("s_c_sw_threadid", sent + 1)
                                  .bytes();
    if (!peer.call("s_c_req_body", sent + 1, piece)) break;
  }
  EXPECT_GE(sent, 30);
  EXPECT_LE(sent, 32);
  EXPECT_TRUE(peer.socket.ended());
  EXPECT_TRUE(serves());
}

TEST_P(HostileToCapiServer, WhoSaysNothingIsDisconnected) {
  tolk_server_options options{};
  options.hello_limit_ms = 1000;  // enough for the bystander
  listen(options);
  RawClient peer(address, false);
  EXPECT_TRUE(peer.socket.ended());
  EXPECT_TRUE(serves());
}

TEST_P(HostileToCapiServer, WhoIsOneTooManyIsDisconnected) {
  tolk_server_options options{};
  options.most_clients = 1;
  listen(options);
  RawClient peer(address, false);
  EXPECT_TRUE(peer.socket.ended());
  EXPECT_TRUE(serves());
}

// Notes that would take many times the message's memory are refused.
TEST_P(HostileToCapiServer, TypesOfNoValueAreIgnored) {
  listen();
  RawClient peer(address);
  const std::string payload = echo_call();
  const auto with_types = [&](const std::string& types) {
    return payload + BlockWriter(payload.size()).keyed("tolk.types", types).bytes();
  };
  std::string many;
  for (int i = 0; i < 100000; ++i) many += std::to_string(i) + ".1.1.1=int64 ";
  for (const std::string& types :
       {std::string("?"), std::string("0=nothing"), std::string("99=int64"), std::string("0=int64"),
        std::string(5000, '.')}) {
    ASSERT_TRUE(peer.socket.send_frame(with_types(types)));
    const auto answer = peer.socket.read_message();
    ASSERT_TRUE(answer) << types;
    EXPECT_EQ(answer->string_at(0), "ping") << types;
  }
  ASSERT_TRUE(peer.socket.send_frame(with_types(many)));
  const auto refused = peer.socket.read_message();
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->text("tolk.kind"), "arguments");
  EXPECT_TRUE(serves());
}

// The first piece of a transfer, and what its sender hears.
std::string begin_transfer(RawClient& peer, int transfer, std::size_t argument_bytes) {
  const BlockWriter arguments = BlockWriter().add(std::string(argument_bytes, 'x'));
  const BlockWriter piece = BlockWriter()
                                .keyed("tolk.transfer", transfer)
                                .keyed("tolk.method", "echo")
                                .keyed("tolk.offset", 0.0)
                                .keyed("tolk.total", 1000.0)
                                .keyed("tolk.arguments", Stream{arguments.bytes()})
                                .add(Stream{});
  const auto answer = peer.call("tolk.piece", 1, piece.bytes());
  return answer ? answer->text("tolk.kind").value_or("begun") : "no answer";
}

// Their requests are not held against the client, since only its pieces can end them.
TEST_P(HostileToCapiServer, TransfersThatDoNotGoOnAreBounded) {
  listen();
  RawClient peer(address);
  for (int transfer = 0; transfer < 1000; ++transfer) {
    ASSERT_EQ(begin_transfer(peer, transfer, 1), "begun");
  }
  EXPECT_EQ(begin_transfer(peer, 1000, 1), "busy");
  EXPECT_TRUE(serves());
}

TEST_P(HostileToCapiServer, ArgumentsOfTransfersThatDoNotGoOnAreBounded) {
  tolk_server_options options{};
  options.most_client_bytes = kMiB;
  listen(options);
  RawClient peer(address);
  EXPECT_EQ(begin_transfer(peer, 1, std::size_t{2} * kMiB), "begun");
  EXPECT_EQ(begin_transfer(peer, 2, 1), "busy");
  EXPECT_TRUE(serves());
}

class HostileToCapiClient : public OverTransports {
 protected:
  void connect(tolk_client_options options = {}) {
    methods.add_echo();
    client = c_client(address, methods, options);
    ASSERT_NE(client, nullptr);
    peer = server.take();
    ASSERT_TRUE(peer.is_open());
  }
  // What became of a call that the peer answers with `answer(call)`.
  template <class Answering>
  tolk_status status_of_call(const Answering& answering) {
    tolk_call call = call_of("ask", nullptr, 20000);
    const uint64_t number = tolk_client_start(client.get(), &call);
    const auto asked = peer.read_message();
    if (!asked) return TOLK_MISUSE;
    answering(*asked);
    return tolk_client_wait(client.get(), number, nullptr, nullptr);
  }

  Methods methods;
  RawServer server{address};
  Owned<tolk_client> client;
  RawSocket peer;
};
TOLK_CAPI_OVER_TRANSPORTS(HostileToCapiClient);

TEST_P(HostileToCapiClient, ABrokenFrameEndsTheConnection) {
  connect();
  EXPECT_EQ(status_of_call([&](const Message&) { peer.send(prefix(-5)); }), TOLK_GONE);
}

TEST_P(HostileToCapiClient, AReplyAboveTheBoundEndsTheConnection) {
  tolk_client_options options{};
  options.most_frame_bytes = 100000;
  connect(options);
  EXPECT_EQ(status_of_call([&](const Message& call) {
              peer.send_frame(reply_payload(call, BlockWriter().add("fits")));
            }),
            TOLK_OK);
  EXPECT_EQ(status_of_call([&](const Message&) { peer.send(prefix(100001)); }), TOLK_GONE);
}

TEST_P(HostileToCapiClient, RepliesThatAreNoBlocksOrNobodysChangeNothing) {
  connect();
  EXPECT_EQ(status_of_call([&](const Message& call) {
              peer.send_frame("?");
              peer.send_frame("");
              for (const char* const token : {"0x1", "", "0xffffffffffffffffffff", "-1", "x"}) {
                Message other = call;
                for (auto& [key, value] : other.keyed) {
                  if (key == "s_c_sw_semid") value = token;
                  if (key == "s_c_sw_threadid") value = 1;
                }
                peer.send_frame(reply_payload(other, BlockWriter().add("wrong")));
              }
              peer.send_frame(reply_payload(call, BlockWriter().add("right")));
              peer.send_frame(reply_payload(call, BlockWriter().add("again")));
            }),
            TOLK_OK);
  EXPECT_EQ(status_of_call([&](const Message& call) {
              peer.send_frame(reply_payload(call, BlockWriter().add("next")));
            }),
            TOLK_OK);
}

TEST_P(HostileToCapiClient, AReplyThatBreaksOffIsMalformed) {
  connect();
  EXPECT_EQ(status_of_call([&](const Message& call) {
              peer.send_frame(reply_payload(call, BlockWriter().add("x")) + "?");
            }),
            TOLK_MALFORMED);
}

TEST_P(HostileToCapiClient, AFloodOfCallsIsAnsweredBusy) {
  tolk_client_options options{};
  options.most_requests = 4;
  std::mutex mutex;
  std::vector<tolk_request*> kept;
  methods.add(
      "keep",
      [&](tolk_request* request) {
        const std::lock_guard lock(mutex);
        kept.push_back(request);
      },
      TOLK_INLINE);
  connect(options);
  for (int i = 0; i < 10; ++i) peer.send_frame(call_payload("keep", 3, {}, "0x7"));
  for (int i = 0; i < 6; ++i) {
    const auto answer = peer.read_message();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->text("tolk.kind"), "busy");
  }
  EXPECT_EQ(kept.size(), 4U);
  for (tolk_request* const request : kept) tolk_request_free(request);
  for (int i = 0; i < 4; ++i) EXPECT_TRUE(peer.read_message());
}

TEST_P(HostileToCapiClient, AServerOfAnotherVersionIsRefused) {
  server.stop();
  struct Case {
    Greeting greeting;
    tolk_status status;
    std::string found;
  };
  const std::string other_version = "Tolk Version: 0.9.8.7";
  const Case cases[] = {
      {refusing(), TOLK_REFUSED, kVersion},
      {replying(BlockWriter().add(false).keyed("VERSION", other_version)), TOLK_REFUSED,
       other_version},
      {replying(BlockWriter()), TOLK_REFUSED, ""},
      {replying(BlockWriter().add("yes").keyed("VERSION", 7)), TOLK_REFUSED, ""},
      {[](RawSocket& at) { at.send(prefix(-1)); }, TOLK_GONE, ""},
  };
  for (const Case& each : cases) {
    const Address other = fresh_address(GetParam());
    const RawServer wrong(other, each.greeting);
    tolk_client* none = nullptr;
    tolk_error* error = nullptr;
    EXPECT_EQ(tolk_client_connect(c_address(other).c_str(), nullptr, &none, &error), each.status);
    EXPECT_EQ(none, nullptr);
    const bool is_refused = each.status == TOLK_REFUSED;
    EXPECT_STREQ(tolk_error_wanted(error), is_refused ? kVersion : "");
    EXPECT_EQ(tolk_error_found(error), each.found);
    EXPECT_STREQ(tolk_error_method(error), "");
    tolk_error_free(error);
  }
}

// The end may come before the client takes itself for connected.
TEST_P(HostileToCapiClient, AServerThatHangsUpEndsTheAttempt) {
  server.stop();
  const Address other = fresh_address(GetParam());
  const RawServer rude(other, hanging_up());
  tolk_client* none = nullptr;
  const tolk_status status = tolk_client_connect(c_address(other).c_str(), nullptr, &none, nullptr);
  EXPECT_TRUE(status == TOLK_GONE || status == TOLK_NOT_CONNECTED) << status;
  EXPECT_EQ(none, nullptr);
}

TEST_P(HostileToCapiClient, AServerThatSaysNothingEndsTheAttempt) {
  server.stop();
  const Address other = fresh_address(GetParam());
  const RawServer mute(other, silent());
  tolk_client_options options{};
  options.size = sizeof options;
  options.connect_limit_ms = 50;
  tolk_client* none = nullptr;
  EXPECT_EQ(tolk_client_connect(c_address(other).c_str(), &options, &none, nullptr),
            TOLK_TIMED_OUT);
  EXPECT_EQ(none, nullptr);
}

}  // namespace
}  // namespace tolk::test
