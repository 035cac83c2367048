// Large data: the receiver of a large call's pieces, and the sender of its result.
#include <memory>
#include <utility>

#include "params/content.h"
#include "server/server_side.h"
#include "sessions/outgoing_call.h"
#include "transport/piece_assembler.h"
#include "transport/piece_sender.h"
#include "transport/reserved_names.h"

namespace tolk {
namespace {

constexpr std::uint32_t kPieceLimitMs = 500;
constexpr int kTaken = 0;
constexpr int kComplete = 1;
constexpr int kMalformed = -1;

// Joins the pieces of a large call, runs it and sends its result back before it answers the last
// piece. The order of what it adds to `out` is wire format, "retval" twice included.
class RecvLargeDataServer final : public IServerMethod {
 public:
  explicit RecvLargeDataServer(ServerSide& owner) : owner_(owner) {}

  void callback(int client_id, TolkParams* in, TolkParams* out) override {
    out->AddKeyValueString(kKeyName, kReply);
    auto joined = pieces_.add(*in);
    if (!joined) return out->AddInt(kTaken);
    out_of_pieces(client_id, *joined, out);
    out->AddInt(kTaken);
  }

 private:
  void out_of_pieces(int client_id, PieceAssembler::Joined& joined, TolkParams* out) {
    TolkParams call;
    const bool parsed = TolkParamsAccess::parse_shared(call, std::exchange(joined.bytes, {}));
    const auto name = read::text(call.GetMap(kKeyName));
    if (!parsed || !name) return out->AddInt(kMalformed);
    out->AddInt(kComplete);
    out->AddKeyValueString(kKeyName, kReply);
    TolkParams result;
    if (!owner_.dispatch_large(client_id, std::string(*name), &call, &result)) return;
    call.Clear();  // it is large, and nobody needs it while the result is sent
    owner_.send_large_result(client_id, joined.call_id, result);
  }

  ServerSide& owner_;  // owns this handler
  PieceAssembler pieces_;
};

}  // namespace

void ServerSide::register_builtins() {
  methods.add_builtin(kMethodPieceHeader, std::make_unique<RecvLargeDataServer>(*this));
  methods.add_builtin(kMethodPieceBody, std::make_unique<RecvLargeDataServer>(*this));
}

// A large call that names a receiver of pieces would nest without end: inside a large call the two
// count as unregistered.
bool ServerSide::dispatch_large(int client_id, const std::string& name, TolkParams* arguments,
                                TolkParams* out) {
  if (name != kMethodPieceHeader && name != kMethodPieceBody) {
    return dispatch(client_id, name, arguments, out);
  }
  call_catch_all(client_id, name, arguments, out);
  answer_unknown(name, out);
  return true;
}

// `result` gets the two keys by which the client knows it.
void ServerSide::send_large_result(int client_id, int call_id, TolkParams& result) {
  const int own_id = read::number(result.GetMap(kKeyCallId));
  const int send_id = call_id_or_own(call_id != 0 ? call_id : own_id);
  result.AddKeyValueString(kKeyName, kMethodLargeData);
  result.AddKeyValueInt(kKeyCallId, call_id);
  const auto send = [&](TolkParams& piece) {
    return SendMsg(client_id, kMethodPieceBody, &piece, send_id, kPieceLimitMs) != nullptr;
  };
  send_in_pieces(TolkParamsAccess::bytes(result), call_id, send, [&result] { result.Clear(); });
}

}  // namespace tolk
