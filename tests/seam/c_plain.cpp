// Peers that know neither pieces nor other names of the C interface.
#include <string>
#include <thread>

#include "tests/e2e/support/raw_peer.h"
#include "tests/seam/c_data.h"
#include "tests/seam/faults.h"

namespace tolk::test {
namespace {

constexpr int kLargeId = 9;
constexpr std::size_t kLargeBytes = 80'000;  // three pieces
constexpr std::size_t kPlainPieceBytes = 32768;
constexpr Milliseconds kAnswerWait{4000};
constexpr Milliseconds kNoThreadWait{50};
constexpr Milliseconds kAcceptStep{10};
constexpr char kCallToken[] = "0x7";

std::string large_text() {
  const auto data = CWorld::data();
  std::string text(data.data(), kLargeBytes);
  for (char& letter : text) letter = letter == '\0' ? 'z' : letter;
  return text;
}

// What a plain client gets for a call.
struct Reply {
  enum class How { answered, ended, nothing };

  How how = How::nothing;
  Message message;
};

class PlainClient {
 public:
  explicit PlainClient(CWorld& world) : world_(world), peer_(address_of(world.server)) {
    if (!peer_.is_greeted()) expect_failure("a plain client is not greeted");
  }

  bool is_greeted() const { return peer_.is_greeted(); }

  Reply call(const char* method, const std::string& arguments) {
    peer_.socket.send_frame(call_payload(method, kLargeId, arguments, kCallToken));
    for (;;) {
      const auto payload = peer_.socket.read_frame(Faults::go_on() ? kNoThreadWait : kAnswerWait);
      if (!payload) return {has_ended() ? Reply::How::ended : Reply::How::nothing, {}};
      const auto message = read_message(payload);
      if (!message) {
        world_.expect_that(false, "a plain client gets what is no message");
        return {};
      }
      if (message->name() == "retval") return {Reply::How::answered, *message};
      take_piece(*message);
    }
  }

  // Without a thread for the handler nothing comes.
  void expect_reply(const Reply& reply) {
    if (reply.how == Reply::How::answered) return;
    if (reply.how == Reply::How::ended) return expect_failure("a plain client is disconnected");
    world_.expect_that(Faults::go_on(), "a plain client is neither answered nor disconnected");
  }

  const std::string& result() const { return result_; }

 private:
  bool has_ended() { return peer_.socket.ended(Milliseconds(0)); }

  void expect_failure(const char* what) { world_.expect_that(Faults::injected(), what); }

  void take_piece(const Message& piece) {
    const auto arguments = read_block(piece.arguments().value_or(""));
    const Scalar* const bytes = arguments ? arguments->at(1) : nullptr;
    const auto* const stream = bytes == nullptr ? nullptr : std::get_if<Stream>(bytes);
    world_.expect_that(piece.name() == "s_c_req_body" && stream != nullptr,
                       "a plain client gets what is no piece");
    if (stream != nullptr) result_ += stream->bytes;
    peer_.socket.send_frame(reply_payload(piece));
  }

  CWorld& world_;
  RawClient peer_;
  std::string result_;
};

std::string piece_arguments(const std::string& block, std::size_t from) {
  return BlockWriter()
      .keyed("s_c_largedata", true)
      .keyed("s_c_sw_threadid", kLargeId)
      .add(static_cast<int>(block.size()))
      .add(Stream{block.substr(from, kPlainPieceBytes)})
      .bytes();
}

// Answers with its argument.
void echo_large(void*, tolk_request* request) {
  tolk_request_answer(request, tolk_block_copy(tolk_request_arguments(request)));
}

void judge_large_result(CWorld& world, const std::string& result) {
  const auto block = read_block(result);
  const bool is_whole = block && block->string_at(0) == large_text();
  world.expect_that(is_whole || Faults::injected(), "the result of a large call is wrong");
}

// A plain server that answers one call with its first value, as long as nobody ends it.
class PlainServer {
 public:
  PlainServer() : address_(fresh_address(Transport::pipe)), listener_(address_) {
    thread_ = std::thread([this] {
      const Exempt peer;
      serve();
    });
  }
  ~PlainServer() {
    ends_ = true;
    thread_.join();
  }
  PlainServer(const PlainServer&) = delete;
  PlainServer& operator=(const PlainServer&) = delete;

  std::string address() const { return "pipe:" + address_.port; }

 private:
  void serve() {
    RawSocket client;
    while (!ends_ && !client.is_open()) client = listener_.accept(kAcceptStep);
    if (const auto question = client.is_open() ? client.read_message() : std::nullopt) {
      client.send_frame(reply_payload(*question, BlockWriter().add(true)));
    }
    const auto call = client.is_open() ? client.read_message() : std::nullopt;
    if (!call) return;
    const auto arguments = read_block(call->arguments().value_or(""));
    BlockWriter values;
    if (arguments && arguments->at(0) != nullptr) values.add(*arguments->at(0));
    client.send_frame(reply_payload(*call, values));
    client.ended();
  }

  const Address address_;
  RawListener listener_;
  std::atomic<bool> ends_{false};
  std::thread thread_;
};

}  // namespace

Address address_of(tolk_server* server) {
  const std::string text = tolk_server_address(server);
  if (text.starts_with("pipe:")) return {Transport::pipe, "", text.substr(5)};
  return {Transport::tcp4, "127.0.0.1", std::to_string(tolk_server_port(server))};
}

void large_call_of_a_plain_client(CWorld& world) {
  const Exempt peer;
  world.add("large", echo_large);
  PlainClient client(world);
  if (!client.is_greeted()) return;
  const std::string block = BlockWriter()
                                .add(large_text())
                                .keyed("s_c_sw_name", "large")
                                .keyed("s_c_sw_threadid", kLargeId)
                                .bytes();
  Reply reply;
  for (std::size_t sent = 0; sent < block.size(); sent += kPlainPieceBytes) {
    reply = client.call("s_c_req_body", piece_arguments(block, sent));
    client.expect_reply(reply);
    if (reply.how != Reply::How::answered) return;
  }
  judge_large_result(world, client.result());
}

void give_data_to_a_plain_client(CWorld& world) {
  const Exempt peer;
  PlainClient client(world);
  if (!client.is_greeted()) return;
  const Reply reply = client.call("give", {});
  client.expect_reply(reply);
  if (reply.how != Reply::How::answered || reply.message.text("tolk.error")) return;
  const Scalar* const first = reply.message.at(0);
  const auto* const stream = first == nullptr ? nullptr : std::get_if<Stream>(first);
  const auto data = CWorld::data();
  world.expect_that(stream != nullptr && std::equal(stream->bytes.begin(), stream->bytes.end(),
                                                    data.begin(), data.end()),
                    "the data of an answer are wrong");
}

void exchange_data_with_a_plain_server(CWorld& world) {
  std::unique_ptr<PlainServer> server;
  std::string address;
  {
    const Exempt peer;
    server = std::make_unique<PlainServer>();
    address = server->address();
  }
  tolk_client_free(std::exchange(world.other, nullptr));
  world.other = world.connect(address.c_str());
  if (world.other != nullptr) {
    // "give" expects the data in the result.
    tolk_call call = world.new_call("give", nullptr);
    call.source = world.source();
    if (call.source == nullptr) {
      world.skip(call);
    } else {
      tolk_client_start(world.other, &call);
      world.wait(call);
    }
    tolk_client_free(std::exchange(world.other, nullptr));
  }
  const Exempt peer;
  server.reset();
}

}  // namespace tolk::test
