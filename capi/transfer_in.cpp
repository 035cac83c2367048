#include "capi/transfer_in.h"

#include <utility>

#include "capi/block.h"
#include "capi/core.h"
#include "capi/peer.h"
#include "capi/request.h"
#include "platform/guarded.h"

namespace tolk {
namespace {

constexpr char kNoMemory[] = "no memory for the data";

}  // namespace

TransferIn::TransferIn(std::shared_ptr<Core> core, std::shared_ptr<Peer> peer, std::uint64_t total)
    : Transfer(std::move(core), std::move(peer)), total_(total) {}

TransferIn::~TransferIn() = default;

void TransferIn::put(ReceivedPiece piece) {
  const auto waiting = waiting_.lock();
  if (waiting->size() < kMostWaiting) waiting->push_back(std::move(piece));
}

std::optional<ReceivedPiece> TransferIn::next() {
  const auto waiting = waiting_.lock();
  if (waiting->empty()) return std::nullopt;
  std::optional<ReceivedPiece> piece(std::move(waiting->front()));
  waiting->pop_front();
  return piece;
}

// A step is short: other transfers wait for their turn.
void TransferIn::step() {
  for (std::size_t count = 0; count < kPieceWindow; ++count) {
    const auto piece = next();
    if (!piece) return;
    if (is_stopped()) return refuse(*piece, status_, "the transfer has ended");
    take_guarded(*piece);
  }
  if (!waiting_.lock()->empty()) schedule();
}

// The sender of the piece hears of it, or its connection ends.
void TransferIn::take_guarded(const ReceivedPiece& received) {
  const auto without_memory = [&](const char*) {
    status_ = TOLK_NO_MEMORY;
    guarded([&] { refuse(received, TOLK_FAILED, kNoMemory); },
            [&](const char*) { peer().disconnect(); });
  };
  guarded([&] { take(received); }, without_memory);
}

void TransferIn::take(const ReceivedPiece& received) {
  const Piece& piece = received.piece;
  if (piece.total != total_ || piece.offset != done_ || piece.is_first() == begun_) {
    status_ = TOLK_MALFORMED;
    return refuse(received, TOLK_FAILED, "a piece is missing");
  }
  if (!begun_) {
    begun_ = true;
    if (!begin(received)) return;
  } else if (!store(received)) {
    return;
  }
  if (!report(received)) return;
  if (done_ == total_) return complete(received);
  confirm(received);
}

bool TransferIn::store(const ReceivedPiece& received) {
  const std::string_view bytes = received.piece.bytes;
  done_ += bytes.size();
  if (!sink_) {
    memory_.append(bytes, static_cast<std::size_t>(total_));
    return true;
  }
  if (sink_->write(bytes)) return true;
  status_ = TOLK_FILE;
  const std::string why = sink_->why;
  refuse(received, TOLK_FAILED, why.empty() ? "the receiver cannot store the data" : why.c_str());
  return false;
}

bool TransferIn::report(const ReceivedPiece& received) {
  if (progress().report(done_, total_)) return true;
  status_ = TOLK_CANCELLED;
  refuse(received, TOLK_CANCELLED, "the receiver has cancelled the transfer");
  return false;
}

void TransferIn::complete(const ReceivedPiece& received) {
  if (!sink_ || sink_->finish()) return on_complete(received);
  status_ = TOLK_FILE;
  refuse(received, TOLK_FAILED, "the receiver cannot store the data");
}

void TransferIn::confirm(const ReceivedPiece& piece) {
  if (piece.ids.wants_reply()) {
    peer().send(confirm_message(core().role(), piece.ids, done_), false);
  }
}

void TransferIn::refuse(const ReceivedPiece& piece, tolk_status status, const char* text) {
  stop();
  on_refused();
  if (!piece.ids.wants_reply()) return;
  peer().send(failure_message(core().role(), piece.ids, {status, 0, text, nullptr}), false);
}

bool TransferIn::keeps_data(const ReceivedPiece& first) {
  const tolk_status status = peer().keep_data(total_, core().most_data_bytes());
  if (status == TOLK_OK) return true;
  status_ = status;
  refuse(first, status,
         status == TOLK_BUSY ? "too many bytes of data are under way"
                             : "the receiver does not take so many bytes");
  return false;
}

void TransferIn::release() {
  if (ran_out_of_memory()) status_ = TOLK_NO_MEMORY;
  const char* const text = ran_out_of_memory() ? kNoMemory : "the transfer has ended";
  guarded([&] {
    while (const auto piece = next()) refuse(*piece, status_, text);
  });
  sink_.reset();
  memory_.clear();
}

// The data of a call of a peer.

RequestIn::RequestIn(std::shared_ptr<Core> core, std::shared_ptr<Peer> peer,
                     std::shared_ptr<tolk_request> request, const Piece& first)
    : TransferIn(std::move(core), std::move(peer), first.total),
      transfer_(first.transfer),
      request_(std::move(request)) {}

RequestIn::~RequestIn() = default;

const std::string& RequestIn::token() const { return request_->token(); }

std::size_t RequestIn::argument_bytes() const { return request_->bytes(); }

bool RequestIn::calls_host() const {
  return request_->method().accept != nullptr || request_->method().progress != nullptr;
}

Progress RequestIn::progress() const {
  const Method& method = request_->method();
  return {method.progress, method.context.get()};
}

bool RequestIn::begin(const ReceivedPiece& first) {
  const Method& method = request_->method();
  if (method.accept != nullptr) {
    tolk_sink* sink = nullptr;
    const tolk_status status = method.accept(method.context.get(), request_.get(), total(), &sink);
    sink_.reset(sink);
    if (status != TOLK_OK) {
      refuse(first, status, status_reason(status));
      return false;
    }
  }
  if (sink_) return true;
  if (!keeps_data(first)) return false;
  request_->note_data(total());
  return true;
}

void RequestIn::on_complete(const ReceivedPiece& last) {
  std::optional<SharedBytes> data;
  if (!sink_) data = memory_.take();
  const tolk_status taken = request_->take_data(std::move(data), last);
  if (taken == TOLK_NO_MEMORY) return refuse(last, TOLK_FAILED, kNoMemory);
  if (taken != TOLK_OK) return refuse(last, taken, "the data are too large for the arguments");
  if (sink_) sink_->keep();
  const auto request = request_;
  core().run_on_loop([request, to = peer_owner()] {
    const auto begin = [&] {
      enter_loop();
      to->count_request(*request, request->bytes());
      to->dispatch(request);
    };
    guarded(begin, [&](const char*) { to->disconnect(); });
  });
  stop();
}

void RequestIn::release() {
  peer().forget_incoming(transfer_, *this);  // first: what comes now is answered by others
  TransferIn::release();
}

// The data of an answer.

AnswerIn::AnswerIn(std::shared_ptr<Core> core, std::shared_ptr<Peer> peer, std::uint64_t number,
                   std::uint64_t total, std::unique_ptr<tolk_sink> sink, Progress progress)
    : TransferIn(std::move(core), std::move(peer), total),
      number_(number),
      progress_(std::move(progress)),
      has_sink_(sink != nullptr),
      calls_host_(progress_.function != nullptr || (sink && sink->calls_host())) {
  sink_ = std::move(sink);
}

bool AnswerIn::begin(const ReceivedPiece& first) {
  if (has_sink_) return true;
  if (!keeps_data(first)) return false;
  kept_ = total();
  return true;
}

void AnswerIn::on_complete(const ReceivedPiece& last) {
  {
    const auto result = result_.lock();
    result->complete = true;
    result->sink = std::move(sink_);
    if (!has_sink_) result->data = memory_.take();
  }
  confirm(last);
}

bool AnswerIn::take_all(double total, std::optional<SharedBytes>* data) {
  const auto result = result_.lock();
  if (!result->complete || total != static_cast<double>(this->total())) return false;
  if (has_sink_) {
    result->sink->keep();
  } else {
    *data = std::move(result->data);
  }
  return true;
}

// The end of the data is that of the call.
void AnswerIn::on_refused() {
  const char* const reason = status_ == TOLK_FILE ? "the data cannot be stored" : nullptr;
  core().fail_call(number_, status_, reason, 0);
}

void AnswerIn::release() {
  TransferIn::release();
  peer().drop_data(kept_);
  Result dropped;
  std::swap(dropped, *result_.lock());
  guarded([&] { on_refused(); });  // unless the call has an outcome
}

}  // namespace tolk
