#include "capi/request.h"

#include <algorithm>
#include <new>
#include <utility>

#include "capi/core.h"
#include "capi/pieces.h"
#include "capi/plain_pieces.h"
#include "capi/transfer_in.h"
#include "capi/transfer_out.h"
#include "transport/pause_point.h"
#include "transport/token.h"

namespace {

constexpr std::size_t kFewTypes = 4096;
constexpr std::size_t kFewBytes = 4096;
constexpr char kTooLargeResult[] = "the result is too large";

}  // namespace

tolk_request::tolk_request(std::shared_ptr<tolk::Core> core, std::shared_ptr<tolk::Peer> peer,
                           std::shared_ptr<const tolk::Method> method, const tolk::Message& call,
                           const tolk::SharedBytes& payload, tolk::Callbacks::HandlerCount handler)
    : tolk_task(Kind::handler, method->is_inline(), std::move(core)),
      handler_(std::move(handler)),
      peer_(std::move(peer)),
      method_(std::move(method)),
      name_(call.plain.name.value_or("")),
      ids_(call.plain),
      token_(call.plain.token.value_or("")),
      bytes_(payload.view.size()) {
  if (call.limit_ms && *call.limit_ms >= 0) {
    deadline_ = uv_hrtime() + static_cast<std::uint64_t>(*call.limit_ms) * tolk::kNanosecondsPerMs;
  }
  // Notes take up to 50 times the memory of their text.
  const bool notes_fit = call.types.size() <= kFewTypes + payload.view.size() / 4;
  auto received = tolk_block::of_message({payload.owner, call.plain.arguments.value_or("")},
                                         notes_fit ? call.types : std::string_view(),
                                         tolk_block::Reserved::kept);
  bad_arguments_ = !notes_fit || !received.is_well_formed() || !call.plain.well_formed;
  arguments_ = std::move(received.block);
}

tolk_request::tolk_request(std::shared_ptr<tolk::Core> core, std::shared_ptr<tolk::Peer> peer,
                           std::shared_ptr<const tolk::Method> method, const tolk::Message& call,
                           const tolk::ReceivedPiece& first, tolk::Callbacks::HandlerCount handler)
    : tolk_task(Kind::handler, method->is_inline(), std::move(core)),
      handler_(std::move(handler)),
      peer_(std::move(peer)),
      method_(std::move(method)),
      name_(first.piece.method),
      ids_(call.plain),
      token_(call.plain.token.value_or("")),
      bytes_(first.message.view.size()) {
  auto received = tolk_block::of_message(
      {first.message.owner, first.piece.arguments.value_or(std::string_view())}, call.types,
      tolk_block::Reserved::kept);
  bad_arguments_ = !received.is_well_formed();
  arguments_ = std::move(received.block);
}

tolk_request::~tolk_request() {
  if (!listed_ || ended_) return;
  peer_->drop_data(data_bytes_);
  peer_->remove_request(*this, bytes_, counted_);
}

void tolk_request::set_state(tolk_status state) {
  tolk_status before = TOLK_OK;
  state_.compare_exchange_strong(before, state);
}

tolk_status tolk_request::state() const {
  const tolk_status state = state_;
  if (!core_->of_this_process()) return TOLK_CLOSED;
  if (state != TOLK_OK) return state;
  if (peer_->is_gone()) return peer_->gone_as();  // first: it stays, also for a posted call
  if (core_->is_closed()) return TOLK_CLOSED;
  return uv_hrtime() > deadline_ ? TOLK_TIMED_OUT : TOLK_OK;
}

std::int32_t tolk_request::limit_left() const {
  if (deadline_ == UINT64_MAX) {
    return TOLK_FOREVER;
  }
  const std::uint64_t now = uv_hrtime();
  const std::uint64_t left = deadline_ > now ? (deadline_ - now) / tolk::kNanosecondsPerMs : 0;
  return static_cast<std::int32_t>(std::max<std::uint64_t>(left, 1));
}

void tolk_request::run_claimed() {
  held_by_handler_ = shared_from_this();
  method_->handler(method_->context.get(), this);
  part_is_over();
  handler_.end();
}

void tolk_request::drop_claimed() {
  fail({TOLK_UNANSWERED, 0, "the handler did not begin", nullptr});
  part_is_over();
  handler_.end();
}

// Another owner may have had it until now: the count makes what that one has done visible.
bool tolk_request::drop_all_but_memory() {
  if (!ended_ || bytes_ > kFewBytes || data_bytes_ != 0) return false;
  shared_from_this().reset();
  peer_.reset();
  method_.reset();
  core_.reset();
  return true;
}

void tolk_request::part_is_over() {
  if (parts_left_.fetch_sub(1) == 1 && method_->is_ordered())
    peer_->dispatch_next(peer_->ordered());
}

// In a forked child the request is the parent's, and so is the connection; threads that are not
// here may have locks.
template <class Send>
void tolk_request::end_by(const Send& send) {
  if (!core_->of_this_process()) return;
  const auto held = std::move(held_by_handler_);  // else its caller keeps it
  if (ended_.exchange(true)) return;
  TOLK_PAUSE_POINT("request.ending");
  peer_->drop_data(data_bytes_);  // before the caller may send others
  if (ids_.wants_reply()) {
    try {
      send();
    } catch (const std::exception&) {  // no memory
      peer_->disconnect();
    }
  }
  TOLK_PAUSE_POINT("request.answered");
  peer_->remove_request(*this, bytes_, counted_);
  part_is_over();
}

template <class MakeFrame>
void tolk_request::end_with(const MakeFrame& make) {
  // What this thread sends next takes it along.
  end_by([&] {
    peer_->send(make(), false, tolk::WorkerPool::more_waits() ? tolk::Send::soon : tolk::Send::now);
  });
}

template <class MakeRecords>
void tolk_request::end_plain(const MakeRecords& make) {
  end_by([&] { tolk::send_plain_result(core_, peer_, ids_, *plain_call_id_, make()); });
}

void tolk_request::become_plain(int call_id, const tolk::SharedBytes& block) {
  plain_call_id_ = call_id;
  arguments_ = tolk_block::of_message(block, {}, tolk_block::Reserved::dropped).block;
}

void tolk_request::answer(const tolk_block* result) {
  const tolk_status status = result == nullptr ? TOLK_OK : result->status();
  if (status != TOLK_OK) {
    const char* const text = result->reason() != nullptr ? result->reason()
                             : status == TOLK_TOO_LARGE  ? kTooLargeResult
                                                         : "no memory for the result";
    return fail({TOLK_FAILED, 0, text, nullptr});
  }
  if (plain_call_id_) {
    return end_plain([&] { return std::string(tolk::Content::of(result).whole().view); });
  }
  end_with([&] {
    const tolk::Content content = tolk::Content::of(result);
    if (!content.is_too_large()) return tolk::reply_message(core_->role(), ids_, content);
    return tolk::failure_message(core_->role(), ids_, {TOLK_FAILED, 0, kTooLargeResult, nullptr});
  });
}

void tolk_request::answer_with(const tolk::Content& result, std::optional<double> data) {
  if (plain_call_id_) return end_plain([&] { return std::string(result.whole().view); });
  end_with([&] { return tolk::reply_message(core_->role(), ids_, result, {}, data); });
}

bool tolk_request::is_wanted() const {
  return !ended_ && state_ == TOLK_OK && !core_->is_closed() && !peer_->is_gone();
}

void tolk_request::answer_data(const tolk_block* result, std::unique_ptr<tolk_source> source) {
  const bool is_answered_at_once = !ids_.wants_reply() || !core_->of_this_process();
  if (is_answered_at_once || (result != nullptr && result->status() != TOLK_OK)) {
    return answer(result);
  }
  tolk::Content content = tolk::Content::of(result);
  if (content.is_too_large()) return answer(result);
  auto self = std::static_pointer_cast<tolk_request>(shared_from_this());
  const std::uint64_t number = tolk::next_token();
  core_->start_answer(std::make_shared<tolk::AnswerOut>(core_, peer_, number, std::move(source),
                                                        std::move(self), std::move(content)),
                      *peer_);
}

// A sender of the C++ layer has the other arguments in the last piece.
tolk_status tolk_request::take_data(std::optional<tolk::SharedBytes> data,
                                    const tolk::ReceivedPiece& last) {
  const auto call = tolk::Message::scan(last.message.view);
  auto whole = std::make_unique<tolk_block>();
  if (data) whole->add_held(std::move(*data));
  tolk::append_values(*whole, *arguments_, 0);
  if (!last.piece.is_first()) {
    const auto more = tolk_block::of_message(
        {last.message.owner, call.plain.arguments.value_or("")}, {}, tolk_block::Reserved::dropped);
    tolk::append_values(*whole, *more.block, 1);
  }
  if (whole->status() != TOLK_OK) return whole->status();
  ids_ = last.ids;
  if (call.limit_ms && *call.limit_ms >= 0) {
    deadline_ = uv_hrtime() + static_cast<std::uint64_t>(*call.limit_ms) * tolk::kNanosecondsPerMs;
  }
  arguments_before_data_ = std::exchange(arguments_, std::move(whole));
  return TOLK_OK;
}

void tolk_request::fail(const tolk::HandlerFailure& failure) {
  core_->log(TOLK_INFO, [&] {
    return peer_->name() + " called " + name_ + ": " + tolk_status_name(failure.status) + ", " +
           std::string(failure.text);
  });
  const std::string_view unknown =
      failure.status == TOLK_NO_METHOD ? std::string_view(name_) : std::string_view();
  if (plain_call_id_) return end_plain([&] { return tolk::failure_records(failure, unknown); });
  end_with([&] { return tolk::failure_message(core_->role(), ids_, failure, unknown); });
}

const tolk_block* tolk_request_arguments(const tolk_request* request) {
  return request->arguments();
}
const char* tolk_request_method(const tolk_request* request) { return request->name().c_str(); }
const tolk_peer* tolk_request_peer(const tolk_request* request) { return &request->peer(); }
tolk_client* tolk_request_client(const tolk_request* request) {
  return request->core().client_handle();
}
tolk_server* tolk_request_server(const tolk_request* request) {
  return request->core().server_handle();
}
int32_t tolk_request_limit_left(const tolk_request* request) { return request->limit_left(); }
tolk_status tolk_request_state(const tolk_request* request) { return request->state(); }

void tolk_request_answer(tolk_request* request, tolk_block* result) {
  const std::unique_ptr<tolk_block, void (*)(tolk_block*)> taken(result, tolk_block_free);
  if (request != nullptr) request->answer(result);
}

void tolk_request_answer_data(tolk_request* request, tolk_block* result, tolk_source* source) {
  const std::unique_ptr<tolk_block, void (*)(tolk_block*)> taken(result, tolk_block_free);
  std::unique_ptr<tolk_source> data(source);
  if (request == nullptr) return;
  if (data == nullptr) return request->fail({TOLK_FAILED, 0, "there are no data", nullptr});
  const auto kept = request->shared_from_this();
  try {
    request->answer_data(result, std::move(data));
  } catch (const std::exception&) {
    request->fail({TOLK_FAILED, 0, "no memory for the data", nullptr});
  }
}

void tolk_request_fail(tolk_request* request, tolk_status status, int32_t code, const char* text,
                       tolk_block* details) {
  const std::unique_ptr<tolk_block, void (*)(tolk_block*)> taken(details, tolk_block_free);
  if (request == nullptr) return;
  tolk::Content content;
  if (details != nullptr && details->status() != TOLK_OK) details = nullptr;
  try {
    // With "tolk.types" in it: that of the reply is about its values.
    if (details != nullptr) content.bytes.view = details->encode();
  } catch (const std::exception&) {  // no memory
    details = nullptr;
  }
  const bool known = status == TOLK_WRONG_ARGUMENTS || status == TOLK_NO_METHOD;
  request->fail({known ? status : TOLK_FAILED, code, text == nullptr ? "" : text,
                 details == nullptr ? nullptr : &content});
}

void tolk_request_free(tolk_request* request) {
  if (request != nullptr) {
    request->fail({TOLK_UNANSWERED, 0, "the handler dropped the request", nullptr});
  }
}
