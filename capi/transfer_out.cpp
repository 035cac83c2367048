#include "capi/transfer_out.h"

#include <algorithm>
#include <utility>

#include "capi/block.h"
#include "capi/core.h"
#include "capi/request.h"
#include "platform/guarded.h"
#include "transport/frame_format.h"

namespace tolk {
namespace {

constexpr char kCancelled[] = "cancelled by the progress callback";

}  // namespace

TransferOut::TransferOut(std::shared_ptr<Core> core, std::shared_ptr<Peer> peer,
                         std::uint64_t number, std::unique_ptr<tolk_source> source)
    : Transfer(std::move(core), std::move(peer)),
      number_(number),
      source_calls_host_(source->calls_host()),
      source_(std::move(source)) {}

TransferOut::~TransferOut() = default;

void TransferOut::on_confirmed(std::uint64_t done) {
  confirmed_ = done;
  is_accepted_ = true;
  schedule();
}

void TransferOut::begin() {
  begun_ = true;
  if (!report(0)) return fail({TOLK_CANCELLED, kCancelled});
  if (!peer().takes_pieces()) return send_whole();
  in_pieces_ = true;
  send_piece(PieceBlock(head(), 0).content, total() == 0);
}

void TransferOut::step() {
  if (!begun_) begin();
  if (is_stopped() || !is_accepted_) return;
  const std::uint64_t confirmed = confirmed_;
  if (!may_go_on()) return fail({TOLK_CANCELLED, "nobody waits for the data any more"});
  if (confirmed > sent_) return fail({TOLK_MALFORMED, "a piece is confirmed that was not sent"});
  if (!report_up_to(confirmed)) {
    return fail({TOLK_CANCELLED, kCancelled});
  }
  if (fill_window(confirmed) && confirmed == total()) on_all_confirmed();
}

// Each piece, also if several of them were confirmed since the last step.
bool TransferOut::report_up_to(std::uint64_t confirmed) {
  while (reported_ < confirmed) {
    reported_ = std::min<std::uint64_t>(reported_ + kPieceBytes, confirmed);
    if (!report(reported_)) return false;
  }
  return true;
}

bool TransferOut::fill_window(std::uint64_t confirmed) {
  while (!is_stopped() && sent_ < total() && sent_ - confirmed < kPieceWindow * kPieceBytes) {
    const auto size =
        static_cast<std::size_t>(std::min<std::uint64_t>(kPieceBytes, total() - sent_));
    if (sent_ + size == total() && last_waits() && confirmed != sent_) return true;
    if (!send_next(size)) return false;
  }
  return true;
}

bool TransferOut::send_next(std::size_t size) {
  Piece piece = head();
  piece.arguments.reset();
  piece.offset = sent_;
  const PieceBlock block(piece, size);
  if (!source_->read(block.bytes, size)) {
    fail({TOLK_FILE, "the data cannot be read", source_->code()});
    return false;
  }
  sent_ += size;
  send_piece(block.content, sent_ == total());
  return true;
}

bool TransferOut::gather(const tolk_block& rest, Content* whole) {
  if (total() > frame_format::kMaxPayloadBytes) {
    fail({TOLK_TOO_LARGE, "the peer does not take data in pieces, and they are too large for one"});
    return false;
  }
  const auto size = static_cast<std::size_t>(total());
  const auto memory = std::make_shared_for_overwrite<char[]>(size);
  if (!source_->read(memory.get(), size)) {
    fail({TOLK_FILE, "the data cannot be read", source_->code()});
    return false;
  }
  tolk_block block;
  block.add_held({memory, {memory.get(), size}});
  append_values(block, rest, 0);
  if (block.status() == TOLK_OK) *whole = Content::of(&block);
  const bool too_large = block.status() == TOLK_TOO_LARGE || whole->is_too_large();
  if (block.status() == TOLK_OK && !too_large) return true;
  fail({too_large ? TOLK_TOO_LARGE : TOLK_NO_MEMORY, "the data are too large for one message"});
  return false;
}

void TransferOut::release() {
  // Unless it is over.
  guarded([&] {
    if (ran_out_of_memory()) return fail({TOLK_NO_MEMORY, "no memory for the data"});
    fail({TOLK_CANCELLED, "the transfer has ended"});
  });
  source_.reset();
}

// The data of a call.

CallOut::CallOut(std::shared_ptr<Core> core, std::shared_ptr<Peer> peer, std::uint64_t number,
                 std::unique_ptr<tolk_source> source, What what)
    : TransferOut(std::move(core), std::move(peer), number, std::move(source)),
      what_(std::move(what)) {}

Piece CallOut::head() const {
  Piece piece;
  piece.transfer = call_id_of(number());
  piece.method = what_.method;
  piece.total = total();
  if (what_.has_arguments) piece.arguments = what_.arguments.bytes.view;
  return piece;
}

bool CallOut::keeps_reply(const SharedBytes& payload) {
  if (what_.progress.function == nullptr) return false;
  *reply_.lock() = payload.owner ? payload : copy_of(payload.view);
  schedule();
  return true;
}

void CallOut::tell_kept_reply(CallRecord& record) const {
  const SharedBytes reply = *reply_.lock();
  if (reply.owner == nullptr) return;
  const auto make = [&](const CallRecord& of) {
    return core().outcome_of_reply(of, Message::scan(reply.view), reply);
  };
  record.outcome = CallTable::MakeOutcome(make)(record);
}

bool CallOut::report(std::uint64_t done) { return what_.progress.report(done, total()); }

void CallOut::step() {
  const SharedBytes reply = *reply_.lock();
  if (reply.owner == nullptr) return TransferOut::step();
  const Message message = Message::scan(reply.view);
  if (!message.error) report(total());
  core().complete_with_reply(peer(), number(), message, reply);
}

// From here on the handler has its time.
CallExtras CallOut::last_extras() {
  CallExtras extras;
  if (what_.limit_ms >= 0 && peer().tells_features()) extras.limit_ms = what_.limit_ms;
  core().move_deadline(number(), what_.limit_ms, Core::Move::anyhow);
  return extras;
}

void CallOut::send_whole() {
  const auto rest = tolk_block::of_message(what_.arguments.whole(), what_.arguments.types,
                                           tolk_block::Reserved::kept);
  Content whole;
  if (!gather(*rest.block, &whole)) return;
  send(call_message(what_.method, number(), &whole, last_extras()));
}

void CallOut::send_piece(const Content& content, bool is_last) {
  const CallExtras extras = is_last ? last_extras() : CallExtras();
  Content typed = content;
  typed.types = what_.arguments.types;
  send(call_message(kMethodPiece, number(), &typed, extras));
}

void CallOut::send(Frame&& frame) { peer().send(std::move(frame), false); }

void CallOut::fail(const Trouble& trouble) {
  core().fail_call(number(), trouble.status, trouble.reason, trouble.code);
}

// A receiver of pieces does not know the limit.
void CallOut::release() {
  TransferOut::release();
  if (!in_pieces() || peer_knows_ || !peer().takes_cancel()) return;
  guarded([&] { core().post_cancel(peer(), number()); });
}

// The data of an answer.

AnswerOut::AnswerOut(std::shared_ptr<Core> core, std::shared_ptr<Peer> peer, std::uint64_t number,
                     std::unique_ptr<tolk_source> source, std::shared_ptr<tolk_request> request,
                     Content result)
    : TransferOut(std::move(core), std::move(peer), number, std::move(source)),
      unwritten_(Transfer::core().callbacks()),
      request_(std::move(request)),
      result_(std::move(result)) {}

AnswerOut::~AnswerOut() = default;

Piece AnswerOut::head() const {
  Piece piece;
  piece.transfer = call_id_of(number());
  piece.token = request_->token();
  piece.total = total();
  return piece;
}

bool AnswerOut::may_go_on() { return request_->is_wanted(); }

void AnswerOut::send_whole() {
  const auto rest =
      tolk_block::of_message(result_.whole(), result_.types, tolk_block::Reserved::kept);
  Content whole;
  if (!gather(*rest.block, &whole)) return;
  request_->answer_with(whole, std::nullopt);
  request_.reset();
  stop();
}

void AnswerOut::send_piece(const Content& content, bool) {
  send(call_message(kMethodPiece, number(), &content, {}));
}

void AnswerOut::send(Frame&& frame) { peer().send(std::move(frame), false); }

void AnswerOut::on_all_confirmed() {
  request_->answer_with(result_, static_cast<double>(total()));
  request_.reset();
  stop();
}

void AnswerOut::fail(const Trouble& trouble) {
  if (const auto request = std::exchange(request_, nullptr)) {
    request->fail({trouble.status, 0, trouble.reason, nullptr});
  }
  stop();
}

void AnswerOut::release() {
  TransferOut::release();
  core().fail_call(number(), TOLK_CANCELLED, nullptr, 0);  // the record of the pieces
  unwritten_.end();
}

}  // namespace tolk
