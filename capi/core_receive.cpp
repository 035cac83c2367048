// Calls of peers, and replies to calls.
#include <array>
#include <utility>
#include <vector>

#include "capi/block.h"
#include "capi/core.h"
#include "capi/pieces.h"
#include "capi/request.h"
#include "params/encoder.h"
#include "params/parser.h"
#include "transport/pause_point.h"
#include "transport/reserved_names.h"

namespace tolk {

void Core::receive(const std::shared_ptr<Peer>& peer, const SharedBytes& payload) {
  const Message message = Message::scan(payload.view);
  if (!message.plain.well_formed) {
    log(TOLK_WARNING, [&] { return peer->name() + " has sent a message that is not a block"; });
  }
  if (!message.plain.name) return;
  if (message.plain.is_reply()) return take_reply(*peer, message, payload);
  if (message.plain.name == kMethodCancel) return take_cancel(*peer, message);
  if (answers_itself(*peer, message)) return;
  if (message.plain.name == kMethodDescribe) return describe(*peer, message);
  if (message.plain.name == kMethodPieceBody && role_ == Side::server) {
    return take_plain_piece(peer, message);
  }
  if (message.plain.name == kMethodPiece) return take_piece(peer, payload);
  take_call(peer, message, payload);
}

// A reply without a token is that of a plain server that closes.
void Core::take_reply(Peer& peer, const Message& reply, const SharedBytes& payload) {
  TOLK_PAUSE_POINT("reply.received");
  on_reply(peer, reply);
  std::uint64_t number = 0;
  if (reply.plain.token) {
    number = parse_token(*reply.plain.token).value_or(0);
  } else if (reply.plain.call_id) {
    number = calls_.find_by_call_id(peer.id(), *reply.plain.call_id);
  }
  if (!takes_data_reply(peer, number, reply, payload)) {
    complete_with_reply(peer, number, reply, payload);
  }
}

Outcome Core::outcome_of_reply(const CallRecord& record, const Message& reply,
                               const SharedBytes& payload) const {
  const bool in_time = record.data && record.data->call && record.data->call->has_kept_reply();
  if (record.done == nullptr && !in_time && uv_hrtime() > record.deadline) {
    return outcome_of(record, TOLK_TIMED_OUT, nullptr);
  }
  if (const tolk_status status = status_of(reply, record.method); status != TOLK_OK) {
    return Outcome::failed(status, [&] {
      Failure failure = failure_of(reply, record.method);
      failure.address = address_;
      if (record.peer != 0) failure.peer = "client " + std::to_string(record.peer);
      return failure;
    });
  }
  std::optional<SharedBytes> data;
  if (!take_answer_data(record, reply, &data)) {
    return outcome_of(record, TOLK_MALFORMED, "data of the answer are missing");
  }
  auto received = tolk_block::of_message(payload, reply.types, tolk_block::Reserved::dropped);
  if (!received.is_well_formed()) return outcome_of(record, TOLK_MALFORMED, nullptr);
  Outcome outcome;
  outcome.result = std::move(received.block);
  if (!data) return outcome;
  auto whole = std::make_unique<tolk_block>();
  whole->add_held(std::move(*data));
  append_values(*whole, *outcome.result, 0);
  if (whole->status() != TOLK_OK) return outcome_of(record, whole->status(), nullptr);
  outcome.result = std::move(whole);
  return outcome;
}

void Core::take_cancel(Peer& peer, const Message& call) {
  struct FirstText : IgnoringSink {
    void positional(const Scalar& value) {
      if (value.type == TolkValue::String && text.empty()) text = value.bytes;
    }
    std::string_view text;
  } sink;
  if (!call.plain.arguments) return;
  parse_records(*call.plain.arguments, sink);
  if (sink.text.empty()) return;
  peer.end_requests(sink.text, TOLK_CANCELLED);
  peer.end_incoming(sink.text);
}

void Core::reply_failure(Peer& peer, const Message& call, const HandlerFailure& failure,
                         std::string_view unknown) {
  log(TOLK_INFO, [&] {
    return peer.name() + " called " + std::string(call.plain.name.value_or("")) +
           ", refused: " + std::string(failure.text);
  });
  const CallIds ids(call.plain);
  if (ids.wants_reply()) peer.send(failure_message(role_, ids, failure, unknown), false);
}

std::shared_ptr<const Method> Core::method_for(Peer& peer, const Message& call,
                                               std::string_view name) {
  const auto refuse = [&](const HandlerFailure& failure, std::string_view unknown = {}) {
    enter_loop();
    reply_failure(peer, call, failure, unknown);
    return nullptr;
  };
  if (state_ != State::open) return refuse({TOLK_CLOSED, 0, "the peer is closing", nullptr});
  auto method = settings_.methods ? settings_.methods->find(name) : nullptr;
  if (!method) {
    const std::string text = "there is no method " + std::string(name);
    return refuse({TOLK_NO_METHOD, 0, text, nullptr}, name);
  }
  if (role_ == Side::client && peer.requests() >= settings_.most_requests) {
    return refuse({TOLK_BUSY, 0, "too many requests are under way", nullptr});
  }
  return method;
}

void Core::take_call(const std::shared_ptr<Peer>& peer, const Message& call,
                     const SharedBytes& payload) {
  // Counted before the look at the state: a close that has not refused the call waits for it.
  Callbacks::HandlerCount handler(callbacks_);
  const auto method = method_for(*peer, call, *call.plain.name);
  if (!method) return;
  const auto request =
      std::make_shared<tolk_request>(shared(), peer, method, call, payload, std::move(handler));
  peer->add_request(*request, payload.view.size());
  if (request->has_bad_arguments()) {
    return request->fail({TOLK_WRONG_ARGUMENTS, 0, "the arguments are not a block", nullptr});
  }
  TOLK_PAUSE_POINT("request.received");
  peer->dispatch(request);
}

// Three lists, in the order of the names. The catch-all has none.
void Core::describe(Peer& peer, const Message& call) {
  const CallIds ids(call.plain);
  if (!ids.wants_reply()) return;
  const auto all = settings_.methods ? settings_.methods->all() : nullptr;
  std::vector<const Method*> told;
  if (all) {
    for (const auto& [name, method] : *all) {
      if (!name.empty() && !method->removed) told.push_back(method.get());
    }
  }
  std::string records;
  Encoder<std::string> encoder(records, 0);
  static constexpr std::array kColumns{&Method::name, &Method::signature, &Method::about};
  for (const auto column : kColumns) {
    encoder.add_list_header(static_cast<std::uint32_t>(told.size()));
    for (const Method* const method : told) encoder.add_string((*method).*column);
  }
  peer.send(reply_message(role_, ids, {copy_of(records), {}}), false);
}

}  // namespace tolk
