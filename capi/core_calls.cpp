// Calls to peers.
#include <cstring>
#include <utility>

#include "capi/block.h"
#include "capi/core.h"
#include "capi/options.h"
#include "params/encoder.h"
#include "transport/pause_point.h"
#include "transport/process_exit.h"
#include "transport/token.h"

namespace tolk {
namespace {

constexpr char kUnknown[] = "the peer has no such method of the library";
constexpr char kOwnLoop[] = "an inline callback and the log cannot wait for their own loop";

// A server calls a client that is not there.
void say_no_client(Failure& failure, std::uint64_t client) {
  failure.reason = client == TOLK_ALL ? "no client is connected" : "there is no such client";
  failure.hint = "call a client between its on_connect and its on_gone";
}

// A post is misuse only when it has to wait where nobody may.
const char* reason_of_post(tolk_status status) {
  if (status == TOLK_NO_METHOD) return kUnknown;
  return status == TOLK_MISUSE ? kOwnLoop : nullptr;
}

// The library's own methods are for peers that have named them.
bool is_unknown_to(const Peer& to, std::string_view method) {
  if (method == kMethodDescribe) return !to.takes_describe();
  return method.starts_with("tolk.") && !to.tells_features();
}

}  // namespace

Failure Core::failure_of_call(const CallRecord& record, tolk_status status,
                              const char* reason) const {
  Failure failure;
  failure.status = status;
  failure.method = record.method;
  failure.address = address_;
  if (record.peer != 0 && record.peer != TOLK_ALL) {
    failure.peer = "client " + std::to_string(record.peer);
  }
  if (reason != nullptr) {
    failure.reason = reason;
  } else if (status == TOLK_TIMED_OUT) {
    failure.reason = "timed out after " + std::to_string(record.limit_ms) + " ms";
  } else if (status == TOLK_NOT_CONNECTED) {
    say_no_client(failure, record.peer);
  }
  return failure;
}

Outcome Core::outcome_of(const CallRecord& record, tolk_status status,
                         const char* reason) const noexcept {
  return Outcome::failed(status, [&] { return failure_of_call(record, status, reason); });
}

std::shared_ptr<CallRecord> Core::new_record(const tolk_call& call) {
  auto record = std::make_shared<CallRecord>((call.flags & TOLK_INLINE) != 0);
  record->number = next_token();
  record->peer = role_ == Side::server ? call.client : 0;
  record->method = call.method == nullptr ? "" : call.method;
  record->deadline = deadline_after(call.limit_ms);
  record->limit_ms = call.limit_ms;
  record->done = call.done;
  record->context = call.context;
  if (record->done != nullptr) callbacks_.expect(*record);
  return record;
}

tolk_status Core::call(const tolk_call& call, tolk_block** result, tolk_error** error) {
  if (!of_this_process()) return fail_post(call.method, TOLK_CLOSED, nullptr, error);
  if (may_not_wait()) return refuse_wait(call.method, error);
  return wait(start(call), TOLK_FOREVER, result, error);
}

tolk_status Core::refuse_wait(const char* method, tolk_error** error) const {
  return fail_post(method, TOLK_MISUSE, kOwnLoop, error);
}

std::uint64_t Core::start(const tolk_call& given) {
  tolk_call call = options_of(&given);
  auto data = take_data_of(call);
  if (call.limit_ms == 0) call.limit_ms = usual_limit();
  if (role_ == Side::server && call.client == TOLK_ALL) {
    return start_for_all(call, call.source != nullptr || call.sink != nullptr);
  }
  const auto record = new_record(call);
  record->data = std::move(data);
  const Content content = Content::of(call.arguments);
  return start_one(record, call, call.arguments == nullptr ? nullptr : &content);
}

// Nobody else is there to run a callback.
std::uint64_t Core::start_in_child(const tolk_call& call) {
  drop_data(call);
  tolk_error* error = nullptr;
  if (call.done == nullptr) return 0;
  fail_post(call.method, TOLK_CLOSED, nullptr, &error);
  tell_now(call, TOLK_CLOSED, error);
  tolk_error_free(error);
  return 0;
}

std::uint64_t Core::start_for_all(const tolk_call& call, bool has_data) {
  auto group = std::make_shared<CallGroup>();
  group->number = next_token();
  const Peers all = peers();
  std::vector<std::shared_ptr<CallRecord>> records;
  for (const auto& [id, unused] : all) {
    records.push_back(new_record(call));
    records.back()->peer = id;
    group->calls.push_back(records.back()->number);
  }
  const auto alone = new_record(call);
  if (call.done == nullptr)
    return refuse(alone, TOLK_MISUSE, "a call to all clients needs a callback");
  if (has_data) return refuse(alone, TOLK_MISUSE, "data go to one client");
  if (records.empty()) {
    return refuse(alone, state_ == State::open ? TOLK_NOT_CONNECTED : TOLK_CLOSED, nullptr);
  }
  const Content content = Content::of(call.arguments);
  group->left = records.size();
  {
    const auto groups = groups_.lock();
    std::erase_if(*groups, [](const auto& entry) { return entry.second.expired(); });
    (*groups)[group->number] = group;
  }
  for (const auto& record : records) record->group = group;
  for (const auto& record : records) {
    if (group->is_cancelled) {
      refuse(record, TOLK_CANCELLED, nullptr);
      continue;
    }
    try {
      start_one(record, call, call.arguments == nullptr ? nullptr : &content);
    } catch (const std::exception&) {
      refuse(record, TOLK_NO_MEMORY, nullptr);
    }
    // One that was cancelled before it was sent is cancelled again.
    if (group->is_cancelled && !cancel_one(record->number)) {
      tell_cancelled(record->peer, record->number);
    }
  }
  return group->number;
}

std::uint64_t Core::refuse(const std::shared_ptr<CallRecord>& record, tolk_status status,
                           const char* reason) {
  const auto make = [&](const CallRecord& refused) { return outcome_of(refused, status, reason); };
  calls_.add_finished(record, CallTable::MakeOutcome(make)(*record));
  return record->number;
}

std::uint64_t Core::start_one(const std::shared_ptr<CallRecord>& record, const tolk_call& call,
                              const Content* arguments) {
  if (call.size == 0) {
    return refuse(record, TOLK_MISUSE, "the size of tolk_call is 0; it is sizeof(tolk_call)");
  }
  if (record->method.empty()) return refuse(record, TOLK_MISUSE, "a call needs a method");
  if (call.arguments != nullptr && call.arguments->status() != TOLK_OK) {
    return refuse(record, call.arguments->status(), call.arguments->reason());
  }
  if (arguments != nullptr && arguments->is_too_large()) {
    return refuse(record, TOLK_TOO_LARGE, nullptr);
  }
  if (state_ != State::open) return refuse(record, TOLK_CLOSED, nullptr);
  const auto to = peer(record->peer);
  if (!to) {
    if (state_ != State::open) return refuse(record, TOLK_CLOSED, nullptr);
    return refuse(record, role_ == Side::server ? TOLK_NOT_CONNECTED : TOLK_GONE, nullptr);
  }
  if (is_unknown_to(*to, record->method)) return refuse(record, TOLK_NO_METHOD, kUnknown);
  if (record->data && record->data->source) return start_with_data(record, call, to, arguments);
  CallExtras extras;
  if (call.limit_ms >= 0 && to->tells_features()) extras.limit_ms = call.limit_ms;
  return start_internal(record, to, arguments, extras);
}

std::uint64_t Core::start_internal(const std::shared_ptr<CallRecord>& record,
                                   const std::shared_ptr<Peer>& to, const Content* arguments,
                                   const CallExtras& extras) {
  const std::uint64_t number = record->number;
  Frame frame = call_message(record->method, number, arguments, extras);
  TOLK_PAUSE_POINT("call.before_register");
  if (!calls_.add(record)) return refuse(record, TOLK_CLOSED, nullptr);
  // From here on it is the table's: others may have completed it.
  if (record->done != nullptr && !watch(number, record->deadline)) {
    fail_call(number, TOLK_NO_MEMORY, nullptr, 0);
    return number;
  }
  const Sent sent = to->send(std::move(frame), false);
  // A peer that goes from now on completes what is in the table.
  if (sent == Sent::closed || to->is_gone()) {
    calls_.complete(
        number, [this](const CallRecord& lost) { return outcome_of(lost, TOLK_GONE, nullptr); },
        Callbacks::When::later);
  }
  return number;
}

// A thread that waits has its own clock. False without memory.
bool Core::watch(std::uint64_t number, std::uint64_t deadline) {
  if (deadline == UINT64_MAX) return true;
  return guarded_or(false, [&] {
    if (deadlines_.add(deadline, number)) arm_deadlines();
    return true;
  });
}

void Core::arm_deadlines() {
  try {
    run_on_loop([this, self = shared()] {
      enter_loop();
      deadlines_.arm();
    });
  } catch (const std::exception&) {
    deadlines_.arming_failed();
    throw;
  }
}

tolk_status Core::wait(std::uint64_t number, std::int32_t limit_ms, tolk_block** result,
                       tolk_error** error) {
  if (!of_this_process()) return fail_post(nullptr, TOLK_CLOSED, nullptr, error);
  const auto given_up = [this](const CallRecord& record) {
    return outcome_of(record, process_exits() ? TOLK_CLOSED : TOLK_TIMED_OUT, nullptr);
  };
  const bool waits = limit_ms != 0 && !may_not_wait();
  Outcome outcome;
  switch (calls_.wait(number, waits ? deadline_after(limit_ms) : 0, given_up, &outcome)) {
    case CallTable::Waited::ended:
      return take_outcome(std::move(outcome), result, error);
    case CallTable::Waited::goes_on:
      if (!waits && limit_ms != 0) return refuse_wait(nullptr, error);
      return fail_post(nullptr, TOLK_BUSY, "the call has not ended", error);
    case CallTable::Waited::none:
      break;
  }
  const bool ended = calls_.is_closed() && !calls_.has(number);
  return fail_post(nullptr, ended ? TOLK_CLOSED : TOLK_MISUSE,
                   ended ? nullptr : "there is no such call to wait for", error);
}

tolk_status Core::take_outcome(Outcome outcome, tolk_block** result, tolk_error** error) {
  if (result != nullptr) *result = outcome.result.release();
  if (error != nullptr) *error = outcome.error.take();
  return outcome.status;
}

bool Core::cancel(std::uint64_t number) {
  if (!of_this_process()) return false;
  std::shared_ptr<CallGroup> group;
  {
    const auto groups = groups_.lock();
    std::erase_if(*groups, [](const auto& entry) { return entry.second.expired(); });
    const auto at = groups->find(number);
    if (at != groups->end()) group = at->second.lock();
  }
  if (!group) return cancel_one(number);
  bool any = false;
  group->is_cancelled = true;
  for (const std::uint64_t each : group->calls) any = cancel_one(each) || any;
  return any;
}

bool Core::cancel_one(std::uint64_t number) {
  std::uint64_t peer_id = 0;
  const bool cancelled = calls_.complete(
      number,
      [&](const CallRecord& record) {
        peer_id = record.peer;
        if (record.data && record.data->call) record.data->call->on_ended();
        return outcome_of(record, TOLK_CANCELLED, nullptr);
      },
      Callbacks::When::later);
  if (cancelled) tell_cancelled(peer_id, number);
  return cancelled;
}

void Core::tell_cancelled(std::uint64_t peer_id, std::uint64_t number) {
  const auto to = peer(peer_id);
  if (to && to->takes_cancel()) guarded([&] { post_cancel(*to, number); });
}

tolk_status Core::fail_post(const char* method, tolk_status status, const char* reason,
                            tolk_error** error) const {
  if (status == TOLK_OK) return TOLK_OK;
  const bool has_texts = guarded_or(false, [&] {
    Failure failure;
    failure.status = status;
    failure.method = method == nullptr ? "" : method;
    failure.address = address_;
    if (reason != nullptr) failure.reason = reason;
    fail(error, std::move(failure));
    return true;
  });
  if (!has_texts && error != nullptr) *error = static_error(status);
  return status;
}

tolk_status Core::fail_no_client(std::uint64_t id, const char* method, tolk_error** error) const {
  Failure failure;
  failure.status = TOLK_NOT_CONNECTED;
  failure.method = method;
  failure.address = address_;
  failure.peer = "client " + std::to_string(id);
  say_no_client(failure, id);
  return fail(error, std::move(failure));
}

tolk_status Core::post(std::uint64_t id, const char* method, const tolk_block* arguments,
                       std::int32_t wait_ms, tolk_error** error) {
  const auto failed = [&](tolk_status status, const char* reason = nullptr) {
    return fail_post(method, status, reason, error);
  };
  if (!of_this_process()) return failed(TOLK_CLOSED);
  if (method == nullptr || *method == '\0') return failed(TOLK_MISUSE, "a call needs a method");
  if (arguments != nullptr && arguments->status() != TOLK_OK) {
    return failed(arguments->status(), arguments->reason());
  }
  if (state_ != State::open) return failed(TOLK_CLOSED);
  const Content content = Content::of(arguments);
  if (content.is_too_large()) return failed(TOLK_TOO_LARGE);
  const Content* const given = arguments == nullptr ? nullptr : &content;
  const std::uint64_t deadline = wait_ms == 0 ? 0 : deadline_after(wait_ms);
  if (role_ == Side::server && id == TOLK_ALL) {
    tolk_status worst = TOLK_OK;
    for (const auto& [each, to] : peers()) {
      const tolk_status status = post_one(*to, method, given, deadline);
      if (worst == TOLK_OK && status != TOLK_GONE) worst = status;
    }
    return failed(worst, reason_of_post(worst));
  }
  const auto to = peer(role_ == Side::server ? id : 0);
  if (!to && role_ == Side::server) return fail_no_client(id, method, error);
  if (!to) return failed(TOLK_GONE);
  const tolk_status status = post_one(*to, method, given, deadline);
  return failed(status, reason_of_post(status));
}

// `deadline`: 0 is not to wait.
tolk_status Core::post_one(Peer& to, const char* method, const Content* arguments,
                           std::uint64_t deadline) {
  if (is_unknown_to(to, method)) return TOLK_NO_METHOD;
  Frame frame = post_message(method, arguments);
  const std::size_t size = frame.total_bytes();
  for (;;) {
    const Sent sent = to.send(std::move(frame), true);  // NOLINT(bugprone-use-after-move)
    // A full queue has not taken it.
    if (sent == Sent::closed) return state_ == State::open ? TOLK_GONE : TOLK_CLOSED;
    if (sent != Sent::full) return TOLK_OK;
    const std::uint64_t now = uv_hrtime();
    if (now >= deadline) return TOLK_BUSY;
    if (may_not_wait()) return TOLK_MISUSE;
    const int left = deadline == UINT64_MAX
                         ? OutgoingQueue::kForever
                         : static_cast<int>((deadline - now) / kNanosecondsPerMs + 1);
    const WorkerPool::Blocked others_may_run;
    if (to.out().wait_for_room(size, left) == Room::none_in_time) return TOLK_BUSY;
  }
}

void Core::tell_now(const tolk_call& call, tolk_status status, const tolk_error* error) const {
  tolk_outcome outcome{};
  outcome.size = sizeof outcome;
  outcome.status = status;
  outcome.error = error;
  outcome.client = call.client;
  const Callbacks::Scope scope(*this);
  call.done(call.context, &outcome);
}

// Without memory, the outcome is told at once. An end of the object waits for that.
std::uint64_t Core::start_guarded(const tolk_call& given) {
  if (!of_this_process()) return start_in_child(options_of(&given));
  const Callbacks::Unfinished unfinished(callbacks_);
  try {
    return start(given);
  } catch (const std::exception&) {
    const tolk_call call = options_of(&given);
    if (call.done != nullptr) tell_now(call, TOLK_NO_MEMORY, no_memory_error());
    return 0;
  }
}

}  // namespace tolk
