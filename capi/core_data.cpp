// Data beside calls and answers.
#include <utility>

#include "capi/core.h"
#include "capi/options.h"
#include "capi/pieces.h"
#include "capi/plain_pieces.h"
#include "capi/request.h"
#include "params/content.h"
#include "params/encoder.h"
#include "transport/pause_point.h"
#include "transport/token.h"

namespace tolk {
namespace {

constexpr double kMostConfirmed = 9007199254740992.0;

}  // namespace

void drop_data(const tolk_call& given) {
  const auto call = options_of(&given);
  tolk_source_free(call.source);
  tolk_sink_free(call.sink);
}

// Calls to peers.

// The first thing of a start, since the call owns them whatever happens.
std::shared_ptr<CallData> Core::take_data_of(const tolk_call& call) {
  std::unique_ptr<tolk_source> source(call.source);
  std::unique_ptr<tolk_sink> sink(call.sink);
  // Data of the answer may come without a sink too.
  if (!source && !sink && call.progress == nullptr && call.piece_limit_ms == 0) return nullptr;
  auto data = CallTable::new_data();
  data->source = std::move(source);
  data->answer_data.lock()->sink = std::move(sink);
  data->progress = {call.progress, call.context, std::make_shared<std::atomic<bool>>(false)};
  data->piece_limit_ms = call.piece_limit_ms;
  return data;
}

std::uint64_t Core::start_with_data(const std::shared_ptr<CallRecord>& record,
                                    const tolk_call& call, const std::shared_ptr<Peer>& to,
                                    const Content* arguments) {
  CallData& data = *record->data;
  const std::int32_t piece_limit_ms =
      data.piece_limit_ms == 0 ? usual_limit() : data.piece_limit_ms;
  CallOut::What what;
  what.method = record->method;
  what.has_arguments = arguments != nullptr;
  if (arguments != nullptr) what.arguments = *arguments;
  what.limit_ms = call.limit_ms;
  what.progress = data.progress;
  const auto out = std::make_shared<CallOut>(shared(), to, record->number, std::move(data.source),
                                             std::move(what));
  data.call = out;
  data.out = out;
  record->deadline = deadline_after(piece_limit_ms);
  const std::uint64_t number = record->number;
  TOLK_PAUSE_POINT("call.before_register");
  if (!calls_.add(record)) return refuse(record, TOLK_CLOSED, nullptr);
  if (record->done != nullptr && !watch(number, record->deadline)) {
    fail_call(number, TOLK_NO_MEMORY, nullptr, 0);
    return number;
  }
  out->schedule();
  TOLK_PAUSE_POINT("transfer.begun");
  // A peer that goes from now on completes what is in the table.
  if (to->is_gone()) fail_call(number, TOLK_GONE, nullptr, 0);
  return number;
}

void Core::start_answer(const std::shared_ptr<AnswerOut>& answer, Peer& to) {
  auto record = std::make_shared<CallRecord>(false);
  record->number = answer->number();
  record->peer = to.id();
  record->is_own = true;
  record->deadline = deadline_after(usual_limit());
  record->data = CallTable::new_data();
  record->data->out = answer;
  try {
    if (!calls_.add(record)) return answer->stop();
  } catch (const std::exception&) {
    record->data->out.reset();  // the caller answers
    throw;
  }
  if (!watch(record->number, record->deadline)) return answer->stop_without_memory();
  answer->schedule();
  if (to.is_gone()) fail_call(answer->number(), TOLK_GONE, nullptr, 0);
}

void Core::fail_call(std::uint64_t number, tolk_status status, const char* reason, int code) {
  const auto make = [&](const CallRecord& record) {
    return Outcome::failed(status, [&] {
      Failure failure = failure_of_call(record, status, reason);
      failure.code = code;
      return failure;
    });
  };
  calls_.complete(number, make, Callbacks::When::later);
}

void Core::move_deadline(std::uint64_t number, std::int32_t limit_ms, Move move) {
  const std::uint64_t deadline = deadline_after(limit_ms);
  const std::uint64_t before =
      calls_.move_deadline(number, deadline, limit_ms, move == Move::only_later);
  if (before > deadline && !watch(number, deadline)) fail_call(number, TOLK_NO_MEMORY, nullptr, 0);
}

// A deadline may have been moved since it was watched.
void Core::on_deadline(std::uint64_t number) {
  if (number == kDrainLimit) return begin_end();
  if (number == kWorkers) return callbacks_.start_workers();
  const std::uint64_t due = calls_.deadline_of(number);
  if (due > uv_hrtime()) {
    if (!watch(number, due)) fail_call(number, TOLK_NO_MEMORY, nullptr, 0);
    return;
  }
  TOLK_PAUSE_POINT("limit.passed");
  calls_.complete(
      number, [this](const CallRecord& late) { return outcome_of(late, TOLK_TIMED_OUT, nullptr); },
      Callbacks::When::now);
}

void Core::post_cancel(Peer& to, std::uint64_t number) {
  std::string token;
  Encoder<std::string> encoder(token, 0);
  encoder.add_string(token_text(number));
  const Content content{copy_of(token), {}};
  to.send(post_message(kMethodCancel, &content), false);
}

void Core::complete_with_reply(Peer& peer, std::uint64_t number, const Message& reply,
                               const SharedBytes& payload) {
  calls_.complete_of(peer.id(), number, [&](const CallRecord& record) {
    return outcome_of_reply(record, reply, payload);
  });
}

// Replies.

bool Core::takes_data_reply(Peer& peer, std::uint64_t number, const Message& reply,
                            const SharedBytes& payload) {
  if (CallData::alive == 0) return false;
  const auto data = calls_.data_of(peer.id(), number);
  if (!data || !data->out) return false;
  if (reply.done && !reply.error) {
    if (!(*reply.done >= 0 && *reply.done <= kMostConfirmed)) return false;
    move_deadline(number, data->piece_limit_ms == 0 ? usual_limit() : data->piece_limit_ms,
                  Move::anyhow);
    data->out->on_confirmed(static_cast<std::uint64_t>(*reply.done));
    return true;
  }
  if (!data->call) return false;
  data->call->on_ended();
  const bool answer_had_data = data->answer_data.lock()->in != nullptr;
  if (std::exchange(data->replied, true) || reply.error || answer_had_data) return false;
  const bool in_time = calls_.deadline_of(number) > uv_hrtime();
  return in_time && data->call->keeps_reply(payload);
}

// False: data that the reply speaks of are not there.
bool Core::take_answer_data(const CallRecord& record, const Message& reply,
                            std::optional<SharedBytes>* data) {
  std::shared_ptr<AnswerIn> in;
  if (record.data) {
    const auto answer = record.data->answer_data.lock();
    if (!reply.data && answer->sink) answer->sink->keep();
    in = answer->in;
  }
  if (!reply.data) return true;
  return in && in->take_all(*reply.data, data);
}

// Pieces.

void Core::take_piece(const std::shared_ptr<Peer>& peer, const SharedBytes& payload) {
  const SharedBytes message = payload.owner ? payload : copy_of(payload.view);
  const Message call = Message::scan(message.view);
  const auto piece = call.plain.arguments ? Piece::read(*call.plain.arguments) : std::nullopt;
  if (!piece) {
    return reply_failure(*peer, call, {TOLK_WRONG_ARGUMENTS, 0, "the piece is malformed", nullptr});
  }
  TOLK_PAUSE_POINT("piece.received");
  ReceivedPiece received{*piece, message, CallIds(call.plain)};
  if (!piece->token.empty()) return take_piece_of_answer(peer, call, std::move(received));
  if (!piece->cancels) return take_piece_of_call(peer, call, std::move(received));
  if (const auto data = peer->incoming(piece->transfer)) data->stop();
}

void Core::take_piece_of_call(const std::shared_ptr<Peer>& peer, const Message& call,
                              ReceivedPiece received) {
  const Piece& piece = received.piece;
  auto data = peer->incoming(piece.transfer);
  if (piece.is_first() && !data) {
    // Counted before the look at the state: a close that has not refused the call waits for it.
    Callbacks::HandlerCount handler(callbacks_);
    const auto method = method_for(*peer, call, piece.method);
    if (!method) return;
    if (!peer->has_room_for_incoming(received.message.view.size())) {
      return reply_failure(*peer, call,
                           {TOLK_BUSY, 0, "too many transfers are under way", nullptr});
    }
    const auto request =
        std::make_shared<tolk_request>(shared(), peer, method, call, received, std::move(handler));
    peer->list_request(*request);
    if (request->has_bad_arguments()) {
      return reply_failure(*peer, call,
                           {TOLK_WRONG_ARGUMENTS, 0, "the arguments are not a block", nullptr});
    }
    data = std::make_shared<RequestIn>(shared(), peer, request, piece);
    peer->add_incoming(piece.transfer, data);
  }
  if (!data) return reply_failure(*peer, call, {TOLK_FAILED, 0, "a piece is missing", nullptr});
  data->put(std::move(received));
  peer->schedule(data);
}

void Core::take_piece_of_answer(const std::shared_ptr<Peer>& peer, const Message& call,
                                ReceivedPiece received) {
  const std::uint64_t number = parse_token(received.piece.token).value_or(0);
  const auto data = calls_.data_for(peer->id(), number);
  if (!data) {
    return reply_failure(*peer, call,
                         {TOLK_CANCELLED, 0, "nobody waits for the data any more", nullptr});
  }
  move_deadline(number, data->piece_limit_ms == 0 ? usual_limit() : data->piece_limit_ms,
                Move::only_later);
  std::shared_ptr<AnswerIn> in;
  {
    const auto answer = data->answer_data.lock();
    if (!answer->in && !answer->is_over) {
      answer->in = std::make_shared<AnswerIn>(shared(), peer, number, received.piece.total,
                                              std::move(answer->sink), data->progress);
    }
    in = answer->in;
  }
  if (in) {
    in->put(std::move(received));
    return in->schedule();
  }
  reply_failure(*peer, call, {TOLK_CANCELLED, 0, "nobody waits for the data any more", nullptr});
}

// Large calls of plain clients.

void Core::take_plain_piece(const std::shared_ptr<Peer>& peer, const Message& call) {
  const CallIds ids(call.plain);
  TolkParams piece;
  TolkParamsAccess::parse_shared(piece, copy_of(call.plain.arguments.value_or("")));
  auto joined = peer->plain_pieces().add(piece);
  if (joined) return take_plain_call(peer, call, joined->call_id, joined->bytes);
  if (peer->plain_pieces().is_above(most_data_bytes())) {
    log(TOLK_WARNING, [&] { return peer->name() + " has sent too many bytes of large calls"; });
    return peer->disconnect();
  }
  if (ids.wants_reply()) peer->send(plain_piece_answer(role_, ids), false);
}

void Core::take_plain_call(const std::shared_ptr<Peer>& peer, const Message& last, int call_id,
                           const SharedBytes& block) {
  const Envelope inner = Message::scan(block.view).plain;
  const CallIds ids(last.plain);
  if (!inner.well_formed || !inner.name) {
    if (ids.wants_reply()) peer->send(plain_malformed_answer(role_, ids), false);
    return;
  }
  Message call = last;
  call.plain.name = inner.name;
  call.plain.arguments.reset();
  Callbacks::HandlerCount handler(callbacks_);  // as for each call
  if (state_ != State::open) {
    return reply_failure(*peer, call, {TOLK_CLOSED, 0, "the peer is closing", nullptr});
  }
  const auto method =
      settings_.methods ? settings_.methods->find(*inner.name) : std::shared_ptr<const Method>();
  if (!method) {
    std::string records;
    Encoder<std::string>(records, 0).add_string(kNoEvent + std::string(*inner.name));
    return send_plain_result(shared(), peer, ids, call_id, std::move(records));
  }
  const auto request =
      std::make_shared<tolk_request>(shared(), peer, method, call, block, std::move(handler));
  peer->add_request(*request, block.view.size());
  request->become_plain(call_id, block);
  peer->dispatch(request);
}

void Core::start_own(const std::shared_ptr<CallRecord>& record, const std::shared_ptr<Peer>& to,
                     const Content& arguments, std::int32_t limit_ms) {
  callbacks_.expect(*record);
  record->is_own = true;
  record->peer = to->id();
  record->deadline = deadline_after(limit_ms);
  start_internal(record, to, &arguments, {});
}

}  // namespace tolk
