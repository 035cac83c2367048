// Large transfers for tests: pieces on plain sockets, blocks of a given size, and a large call on
// another thread.
#pragma once

#include <gtest/gtest.h>
#include <tolk/tolk.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "tests/e2e/support/handlers.h"
#include "tests/e2e/support/raw_peer.h"
#include "tests/pattern.h"

namespace tolk::test {

inline constexpr int kDefaultPieceBytes = 32768;

// Restores the piece size, which the whole process shares, when a test ends.
class PieceSizeRestored {
 public:
  ~PieceSizeRestored() {
    const ServerPtr any = make_server();
    any->SetBigfileBufferSize(kDefaultPieceBytes);
  }
};

inline constexpr int kLargeCallId = 77;

// The number of bytes of the two keys that a sender adds to a block.
inline std::size_t added_bytes(std::string_view name) { return 30 + name.size() + 34; }

// Fills `block` so that with the two keys of a call of `name` it is `total` bytes.
inline void fill_to(TolkParams& block, std::string_view name, std::size_t total) {
  constexpr std::size_t kStreamRecordBytes = 9;
  const std::string bytes = pattern(total - added_bytes(name) - kStreamRecordBytes);
  block.AddStream(bytes.data(), static_cast<long>(bytes.size()));
}

// A call of the receiver of pieces, as a peer sees it.
struct Piece {
  Message call;
  Block block;

  int total() const { return std::get<int>(*block.at(0)); }
  const std::string& bytes() const { return std::get<Stream>(*block.at(1)).bytes; }
};

inline std::optional<Piece> read_piece(RawSocket& socket) {
  auto call = socket.read_message();
  if (!call || call->name() != "s_c_req_body" || !call->arguments()) return std::nullopt;
  auto block = read_block(*call->arguments());
  if (!block || block->values.size() != 2) return std::nullopt;
  return Piece{std::move(*call), std::move(*block)};
}

// A large block as it came, before its last piece was answered.
struct Received {
  std::vector<std::size_t> sizes;
  std::string bytes;
  std::optional<Message> last;  // nothing when the transfer broke off
};

// The answer of a server to a piece that leaves the block incomplete.
inline std::string taken(const Message& call) {
  return reply_payload(call, BlockWriter().keyed("s_c_sw_name", std::string("retval")).add(0));
}

inline Received receive_large(RawSocket& socket) {
  Received received;
  while (auto piece = read_piece(socket)) {
    received.sizes.push_back(piece->bytes().size());
    received.bytes += piece->bytes();
    if (static_cast<int>(received.bytes.size()) >= piece->total()) {
      received.last = std::move(piece->call);
      break;
    }
    socket.send_frame(taken(piece->call));
  }
  return received;
}

inline std::string piece_arguments(int call_id, int total, std::string_view bytes) {
  return BlockWriter()
      .keyed("s_c_largedata", true)
      .keyed("s_c_sw_threadid", call_id)
      .add(total)
      .add(Stream{std::string(bytes)})
      .bytes();
}

// Sends one piece and returns the answer to it.
inline std::optional<Message> send_piece(RawSocket& socket, int call_id, int total,
                                         std::string_view bytes) {
  socket.send_frame(
      call_payload("s_c_req_body", call_id, piece_arguments(call_id, total, bytes), "0x1"));
  return socket.read_message();
}

// Sends `block` as one piece.
inline std::optional<Message> send_large(RawSocket& socket, int call_id, std::string_view block) {
  return send_piece(socket, call_id, static_cast<int>(block.size()), block);
}

// The block of a large call: the arguments of the method and the keys that a client adds.
inline std::string large_call(BlockWriter arguments, std::string_view name, int call_id) {
  return arguments.keyed("s_c_sw_name", std::string(name))
      .keyed("s_c_sw_threadid", call_id)
      .bytes();
}

// SendMsgEx on another thread. Declare it before the sockets whose end wakes it.
class LargeCall {
 public:
  LargeCall() = default;
  ~LargeCall() { join(); }
  LargeCall(const LargeCall&) = delete;
  LargeCall& operator=(const LargeCall&) = delete;

  void begin(IClient& client, const char* name, TolkParams* arguments, int call_id = 0,
             int unused_limit = 0) {
    join();
    over_ = Counter();
    thread_ = std::thread([this, &client, name, arguments, call_id, unused_limit] {
      result_ = client.SendMsgEx(name, arguments, call_id, unused_limit);
      over_.add();
    });
  }
  bool is_over(Milliseconds limit = kQuiet) const { return over_.wait_for(1, limit); }
  // The result; null also if the call has not returned.
  TolkParams* result() {
    if (!is_over(kLimit)) return nullptr;
    join();
    return result_;
  }

 private:
  void join() {
    if (thread_.joinable()) thread_.join();
  }

  Counter over_;
  TolkParams* result_ = nullptr;
  std::thread thread_;
};

// Waits until all worker threads are idle: as many handlers as there are workers then run at once.
// If a server is destroyed while a worker waits for a client's answer, nothing ends that wait, and
// the worker is lost for the process; so the tests of a server let all workers finish first.
inline bool workers_are_free(IServer& server, const Address& address) {
  constexpr int kWorkers = 4;
  Gate gate;
  const OpenAtEnd open(gate);
  server.method("all workers", blocking(gate));
  RawClient asking(address);
  for (int i = 0; i < kWorkers; ++i) asking.post("all workers");
  return gate.wait_entered(kWorkers);
}

inline std::string stream_at(TolkParams* block, int position) {
  TolkValue* const value = block == nullptr ? nullptr : block->GetValue(position);
  if (value == nullptr || !value->IsStream()) return "no stream";
  long size = 0;
  const char* const bytes = value->GetStream(size);
  return {bytes, static_cast<std::size_t>(size)};
}

inline std::string text_of(TolkParams* block, const char* key) {
  TolkValue* const value = block == nullptr ? nullptr : block->GetMap(key);
  return value != nullptr && value->IsString() ? value->GetString() : "";
}

inline int number_of(TolkParams* block, const char* key) {
  TolkValue* const value = block == nullptr ? nullptr : block->GetMap(key);
  return value != nullptr && value->IsInt() ? value->GetInt() : 0;
}

}  // namespace tolk::test
