// Calls to peers.
#include <cstring>
#include <utility>

#include "capi/block.h"
#include "capi/core.h"
#include "capi/options.h"
#include "params/encoder.h"
#include "transport/token.h"

namespace tolk {
namespace {

constexpr std::uint64_t kNanosecondsPerMs = 1000000;

std::uint64_t deadline_after(std::int32_t limit_ms) {
  if (limit_ms < 0) return UINT64_MAX;
  return uv_hrtime() + static_cast<std::uint64_t>(limit_ms) * kNanosecondsPerMs;
}

}  // namespace

Outcome Core::outcome_of(const CallRecord& record, tolk_status status, const char* reason) const {
  Failure failure;
  failure.status = status;
  failure.method = record.method;
  failure.address = address_;
  if (record.peer != 0) failure.peer = "client " + std::to_string(record.peer);
  if (reason != nullptr) failure.reason = reason;
  return Outcome::of(std::move(failure));
}

std::shared_ptr<CallRecord> Core::new_record(const tolk_call& call) {
  auto record = std::make_shared<CallRecord>((call.flags & TOLK_INLINE) != 0);
  record->number = next_token();
  record->peer = role_ == Side::server ? call.client : 0;
  record->method = call.method == nullptr ? "" : call.method;
  record->deadline = deadline_after(call.limit_ms);
  record->done = call.done;
  record->context = call.context;
  return record;
}

tolk_status Core::call(const tolk_call& call, tolk_block** result, tolk_error** error) {
  if (!of_this_process() || !on_loop_thread()) return wait(start(call), result, error);
  Failure failure;
  failure.status = TOLK_MISUSE;
  failure.method = call.method == nullptr ? "" : call.method;
  failure.reason = "a callback on the loop thread cannot wait for its own loop";
  return fail(error, std::move(failure));
}

std::uint64_t Core::start(const tolk_call& given) {
  tolk_call call = options_of(&given);
  auto data = take_data_of(call);
  if (call.limit_ms == 0) call.limit_ms = usual_limit();
  if (role_ == Side::server && call.client == TOLK_ALL) return start_for_all(call, data != nullptr);
  const auto record = new_record(call);
  record->data = std::move(data);
  const Content content = Content::of(call.arguments);
  return start_one(record, call, call.arguments == nullptr ? nullptr : &content);
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
  if (records.empty() || !of_this_process()) {
    return refuse(alone, records.empty() ? TOLK_NOT_CONNECTED : TOLK_CLOSED, nullptr);
  }
  const Content content = Content::of(call.arguments);
  group->left = records.size();
  (*groups_.lock())[group->number] = group;
  for (const auto& record : records) {
    record->group = group;
    start_one(record, call, call.arguments == nullptr ? nullptr : &content);
  }
  return group->number;
}

std::uint64_t Core::refuse(const std::shared_ptr<CallRecord>& record, tolk_status status,
                           const char* reason) {
  calls_.add_finished(record, outcome_of(*record, status, reason));
  return record->number;
}

std::uint64_t Core::start_one(const std::shared_ptr<CallRecord>& record, const tolk_call& call,
                              const Content* arguments) {
  if (record->method.empty()) return refuse(record, TOLK_MISUSE, "a call needs a method");
  if (call.arguments != nullptr && call.arguments->status() != TOLK_OK) {
    return refuse(record, call.arguments->status(), nullptr);
  }
  if (arguments != nullptr && arguments->is_too_large()) {
    return refuse(record, TOLK_TOO_LARGE, nullptr);
  }
  if (state_ != State::open || !of_this_process()) return refuse(record, TOLK_CLOSED, nullptr);
  const auto to = peer(record->peer);
  if (!to) return refuse(record, role_ == Side::server ? TOLK_NOT_CONNECTED : TOLK_GONE, nullptr);
  if (record->data && record->data->source) return start_with_data(record, call, to, arguments);
  CallExtras extras;
  if (call.limit_ms >= 0 && to->tells_features()) extras.limit_ms = call.limit_ms;
  return start_internal(record, to, arguments, extras);
}

std::uint64_t Core::start_internal(std::shared_ptr<CallRecord> record,
                                   const std::shared_ptr<Peer>& to, const Content* arguments,
                                   const CallExtras& extras) {
  const std::uint64_t number = record->number;
  Frame frame = call_message(record->method, number, arguments, extras);
  if (!calls_.add(record)) return refuse(record, TOLK_CLOSED, nullptr);
  if (record->done != nullptr) watch(number, record->deadline);
  const Sent sent = to->send(std::move(frame), false);
  // A peer that goes from now on completes what is in the table.
  if (sent == Sent::closed || to->is_gone()) {
    calls_.complete(
        number, [this](const CallRecord& lost) { return outcome_of(lost, TOLK_GONE, nullptr); },
        Callbacks::When::later);
  }
  return number;
}

// A thread that waits has its own clock.
void Core::watch(std::uint64_t number, std::uint64_t deadline) {
  if (deadline == UINT64_MAX || !deadlines_.add(deadline, number)) return;
  run_on_loop([this, self = shared()] {
    enter_loop();
    deadlines_.arm();
  });
}

tolk_status Core::wait(std::uint64_t number, tolk_block** result, tolk_error** error) {
  const auto timed_out = [this](const CallRecord& record) {
    return outcome_of(record, TOLK_TIMED_OUT, nullptr);
  };
  Outcome outcome;
  const bool may_wait = of_this_process() && !on_loop_thread();
  const auto how = may_wait ? CallTable::Wait::allowed : CallTable::Wait::finished_only;
  if (!calls_.wait(number, how, timed_out, &outcome)) {
    Failure failure;
    failure.status = TOLK_MISUSE;
    failure.reason = "there is no such call to wait for";
    outcome = Outcome::of(std::move(failure));
  }
  return take_outcome(std::move(outcome), result, error);
}

tolk_status Core::take_outcome(Outcome outcome, tolk_block** result, tolk_error** error) {
  if (result != nullptr) *result = outcome.result.release();
  if (error != nullptr) *error = outcome.error.take();
  return outcome.status;
}

bool Core::cancel(std::uint64_t number) {
  std::shared_ptr<CallGroup> group;
  {
    const auto groups = groups_.lock();
    std::erase_if(*groups, [](const auto& entry) { return entry.second.expired(); });
    const auto at = groups->find(number);
    if (at != groups->end()) group = at->second.lock();
  }
  if (!group) return cancel_one(number);
  bool any = false;
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
  if (!cancelled) return false;
  const auto to = peer(peer_id);
  if (to && to->takes_cancel()) post_cancel(*to, number);
  return true;
}

tolk_status Core::fail_post(const char* method, tolk_status status, const char* reason,
                            tolk_error** error) const {
  if (status == TOLK_OK) return TOLK_OK;
  Failure failure;
  failure.status = status;
  failure.method = method == nullptr ? "" : method;
  failure.address = address_;
  if (reason != nullptr) failure.reason = reason;
  return fail(error, std::move(failure));
}

tolk_status Core::post(std::uint64_t id, const char* method, const tolk_block* arguments,
                       std::int32_t wait_ms, tolk_error** error) {
  const auto failed = [&](tolk_status status, const char* reason = nullptr) {
    return fail_post(method, status, reason, error);
  };
  if (method == nullptr || *method == '\0') return failed(TOLK_MISUSE, "a call needs a method");
  if (arguments != nullptr && arguments->status() != TOLK_OK) return failed(arguments->status());
  if (state_ != State::open || !of_this_process()) return failed(TOLK_CLOSED);
  const Content content = Content::of(arguments);
  if (content.is_too_large()) return failed(TOLK_TOO_LARGE);
  const Content* const given = arguments == nullptr ? nullptr : &content;
  if (role_ == Side::server && id == TOLK_ALL) {
    tolk_status worst = TOLK_OK;
    for (const auto& [each, to] : peers()) {
      if (post_one(*to, method, given, wait_ms) == TOLK_BUSY) worst = TOLK_BUSY;
    }
    return failed(worst);
  }
  const auto to = peer(role_ == Side::server ? id : 0);
  if (!to) return failed(role_ == Side::server ? TOLK_NOT_CONNECTED : TOLK_GONE);
  return failed(post_one(*to, method, given, wait_ms));
}

tolk_status Core::post_one(Peer& to, const char* method, const Content* arguments,
                           std::int32_t wait_ms) {
  Frame frame = post_message(method, arguments);
  const std::size_t size = frame.payload_bytes() + Frame::kPrefixBytes;
  const std::uint64_t deadline = deadline_after(wait_ms);
  for (;;) {
    const Sent sent = to.send(std::move(frame), true);
    if (sent == Sent::closed) return state_ == State::open ? TOLK_GONE : TOLK_CLOSED;
    if (sent != Sent::full) return TOLK_OK;
    const std::uint64_t now = uv_hrtime();
    if (now >= deadline || on_loop_thread()) return TOLK_BUSY;
    const int left = deadline == UINT64_MAX
                         ? OutgoingQueue::kForever
                         : static_cast<int>((deadline - now) / kNanosecondsPerMs + 1);
    const WorkerPool::Blocked others_may_run;
    if (to.out().wait_for_room(size, left) == Room::none_in_time) return TOLK_BUSY;
  }
}

// Without memory, the outcome is told at once.
std::uint64_t start_guarded(Core& core, const tolk_call& given) {
  try {
    return core.start(given);
  } catch (const std::exception&) {
    const tolk_call call = options_of(&given);
    if (call.done == nullptr) return 0;
    tolk_outcome outcome{};
    outcome.size = sizeof outcome;
    outcome.status = TOLK_NO_MEMORY;
    outcome.error = no_memory_error();
    outcome.client = call.client;
    call.done(call.context, &outcome);
    return 0;
  }
}

}  // namespace tolk
