#include "capi/plain_pieces.h"

#include <algorithm>
#include <utility>

#include "capi/core.h"
#include "params/encoder.h"
#include "platform/guarded.h"
#include "transport/piece_sender.h"
#include "transport/reserved_names.h"
#include "transport/token.h"

namespace tolk {
namespace {

constexpr std::int32_t kPieceLimitMs = 500;
constexpr int kTaken = 0;
constexpr int kComplete = 1;
constexpr int kMalformed = -1;

void add_reply_name(Encoder<std::string>& encoder) {
  encoder.add_key(kKeyName);
  encoder.add_string(kReply);
}

// `verdict`: absent for a piece that is not the last one. "retval" stands where plain servers have
// it.
Frame answer(Side side, const CallIds& ids, std::optional<int> verdict) {
  std::string records;
  Encoder<std::string> encoder(records, 0);
  add_reply_name(encoder);
  if (verdict) encoder.add_int(*verdict);
  if (verdict == kComplete) add_reply_name(encoder);
  encoder.add_int(kTaken);
  return reply_message(side, ids, {{nullptr, records}, {}});
}

// The sending of one result.
class PlainResult {
 public:
  PlainResult(std::shared_ptr<Core> core, std::shared_ptr<Peer> peer, const CallIds& ids,
              int call_id, std::string records)
      : core_(std::move(core)),
        peer_(std::move(peer)),
        ids_(ids),
        call_id_(call_id),
        block_(std::move(records)),
        unwritten_(core_->callbacks()) {
    Encoder<std::string> encoder(block_, 0);
    encoder.add_key(kKeyName);
    encoder.add_string(kMethodLargeData);
    encoder.add_key(kKeyCallId);
    encoder.add_int(call_id);
  }

  // Sends the next piece, or ends. Throws without memory; nothing is sent then.
  static void go_on(std::unique_ptr<PlainResult> result) {
    if (result->is_sent() || !fits_pieces(result->block_)) return result->end();
    const auto core = result->core_;
    const auto peer = result->peer_;
    const Content piece{copy_of(result->next()), {}};
    auto record = std::make_shared<CallRecord>(false);
    record->number = next_token();
    record->method = kMethodPieceBody;
    record->done = on_answer;
    record->context = result.get();
    core->start_own(record, peer, piece, kPieceLimitMs);
    static_cast<void>(result.release());  // it is the callback's, which may have run
  }

 private:
  static void on_answer(void* context, const tolk_outcome* outcome) {
    std::unique_ptr<PlainResult> result(static_cast<PlainResult*>(context));
    const auto peer = result->peer_;
    const auto go_on_or_end = [&] {
      if (outcome->status != TOLK_OK) return result->end();
      go_on(std::move(result));
    };
    // Without memory for an answer, the caller learns it by the end of the connection.
    guarded(go_on_or_end, [&](const char*) { peer->disconnect(); });
  }

  bool is_sent() const { return sent_ == block_.size(); }

  std::string next() {
    const std::string_view bytes =
        std::string_view(block_).substr(sent_, static_cast<std::size_t>(kDefaultPieceBytes));
    sent_ += bytes.size();
    std::string piece;
    Encoder<std::string> encoder(piece, 0);
    encoder.add_key(kKeyLargeData);
    encoder.add_bool(true);
    encoder.add_key(kKeyCallId);
    encoder.add_int(call_id_);
    encoder.add_int(static_cast<std::int32_t>(block_.size()));
    encoder.add_stream(bytes);
    return piece;
  }

  void end() { peer_->send(answer(core_->role(), ids_, kComplete), false); }

  const std::shared_ptr<Core> core_;
  const std::shared_ptr<Peer> peer_;
  const CallIds ids_;
  const int call_id_;
  std::string block_;
  std::size_t sent_ = 0;
  Callbacks::HandlerCount unwritten_;  // a close waits for the answer
};

}  // namespace

Frame plain_piece_answer(Side side, const CallIds& ids) { return answer(side, ids, std::nullopt); }

Frame plain_malformed_answer(Side side, const CallIds& ids) {
  return answer(side, ids, kMalformed);
}

void send_plain_result(std::shared_ptr<Core> core, std::shared_ptr<Peer> peer, const CallIds& ids,
                       int call_id, std::string records) {
  PlainResult::go_on(std::make_unique<PlainResult>(std::move(core), std::move(peer), ids, call_id,
                                                   std::move(records)));
}

}  // namespace tolk
