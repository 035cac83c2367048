#include "capi/call_table.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <exception>
#include <iterator>
#include <list>
#include <memory>
#include <utility>

#include "capi/core.h"
#include "capi/messages.h"
#include "platform/process.h"
#include "transport/process_exit.h"
#include "transport/staying_awake.h"

namespace tolk {
namespace {

std::chrono::nanoseconds until(std::uint64_t deadline) {
  const std::uint64_t now = uv_hrtime();
  return std::chrono::nanoseconds(deadline > now ? deadline - now : 0);
}

}  // namespace

// While alive, a worker waits for a call. The exit of the process ends the wait: a host that ends
// its objects then would otherwise wait for a handler that waits for an object that nobody ends.
class CallTable::WorkerWait {
 public:
  WorkerWait(const CallTable& table, std::uint64_t number) {
    if (!WorkerPool::on_worker()) return;
    install_exit_handler();
    place_.push_back({&table, number});
    all_ = &all_of_this_process();
    const auto list = all_->list.lock();
    list->splice(list->end(), place_);
    at_ = std::prev(list->end());
  }
  ~WorkerWait() {
    if (all_ == nullptr) return;
    const auto list = all_->list.lock();
    place_.splice(place_.end(), *list, at_);
  }
  WorkerWait(const WorkerWait&) = delete;
  WorkerWait& operator=(const WorkerWait&) = delete;

  bool ends() const { return all_ != nullptr && process_exits(); }

 private:
  struct Wait {
    const CallTable* table;
    std::uint64_t number;
  };
  using Waits = std::list<Wait>;
  struct All {
    const std::uint32_t process = platform::generation();
    Guarded<Waits> list;
  };

  // A forked child makes its own: its parent's may be locked by a thread that is not there.
  static All& all_of_this_process() {
    All* known = all.load();
    if (known != nullptr && known->process == platform::generation()) return *known;
    auto made = std::make_unique<All>();
    return all.compare_exchange_strong(known, made.get()) ? *made.release() : *known;
  }

  static void wake_all() {
    All* const known = all.load();
    if (known == nullptr || known->process != platform::generation()) return;
    const auto list = known->list.lock();
    for (const auto& [table, number] : *list) {
      const auto shard = table->shard_of(number).lock();
      const auto at = shard->records.find(number);
      if (at != shard->records.end()) at->second->ended.notify_all();
    }
  }

  static std::atomic<All*> all;  // never destroyed: threads may use it while the process ends
  static const AtProcessExit at_exit;

  All* all_ = nullptr;
  Waits place_;
  Waits::iterator at_;
};

constinit std::atomic<CallTable::WorkerWait::All*> CallTable::WorkerWait::all{nullptr};
const AtProcessExit CallTable::WorkerWait::at_exit{wake_all, AtProcessExit::In::every_process};

Outcome Outcome::of(Failure failure) noexcept {
  Outcome outcome;
  outcome.status = failure.status;
  if (failure.status != TOLK_OK) outcome.error = ErrorRef(new_error(std::move(failure)));
  return outcome;
}

Outcome Outcome::without_texts(tolk_status status) noexcept {
  Outcome outcome;
  outcome.status = status;
  outcome.error = ErrorRef(static_error(status));
  return outcome;
}

Outcome CallTable::MakeOutcome::operator()(const CallRecord& record) const noexcept {
  try {
    return call_(function_, record);
  } catch (const std::exception&) {
    return Outcome::without_texts(TOLK_NO_MEMORY);
  }
}

// Its end tells the outcome of a call with data: the host hears of that when its sources, sinks and
// progress are through.
class Delivery {
 public:
  Delivery() = default;
  ~Delivery() {
    if (record_) table_->deliver(record_, when_);
  }
  Delivery(const Delivery&) = delete;
  Delivery& operator=(const Delivery&) = delete;

  void prepare(CallTable& table, std::shared_ptr<CallRecord> record, Callbacks::When when) {
    table_ = &table;
    record_ = std::move(record);
    when_ = when;
  }

 private:
  CallTable* table_ = nullptr;
  std::shared_ptr<CallRecord> record_;
  Callbacks::When when_ = Callbacks::When::later;
};

std::shared_ptr<CallData> CallTable::new_data() {
  auto data = std::make_shared<CallData>();
  data->delivery = std::make_shared<Delivery>();
  return data;
}

void CallRecord::run_claimed() {
  tolk_outcome shown{};
  shown.size = sizeof shown;
  shown.status = outcome.status;
  shown.result = outcome.status == TOLK_OK ? outcome.result.get() : nullptr;
  shown.error = outcome.error.get();
  shown.call = group ? group->number : number;
  shown.client = peer;
  shown.left = group ? --group->left : 0;
  done(context, &shown);
  outcome = {};
  if (!group) return;
  if (const auto waiting = group->outcomes.next()) {
    core_->callbacks().dispatch(waiting, Callbacks::When::later);
  }
}

bool CallTable::add(const std::shared_ptr<CallRecord>& record) {
  const auto shard = shard_of(record->number).lock();
  if (shard->closed) return false;
  shard->records.emplace(record->number, record);
  return true;
}

void CallTable::add_finished(const std::shared_ptr<CallRecord>& record, Outcome outcome) {
  record->data.reset();
  if (record->done != nullptr) return settle(record, std::move(outcome), Callbacks::When::later);
  record->outcome = std::move(outcome);
  record->taken = true;
  record->finished = true;
  shard_of(record->number).lock()->records.emplace(record->number, record);
}

std::shared_ptr<CallRecord> CallTable::take(std::uint64_t number) {
  const auto shard = shard_of(number).lock();
  const auto at = shard->records.find(number);
  if (at == shard->records.end() || at->second->taken) return nullptr;
  std::shared_ptr<CallRecord> record = at->second;
  record->taken = true;
  if (record->done != nullptr || record->is_own) shard->records.erase(at);
  return record;
}

// The record is this thread's.
void CallTable::settle(const std::shared_ptr<CallRecord>& record, Outcome outcome,
                       Callbacks::When when) {
  record->outcome = std::move(outcome);
  const tolk_status status = record->outcome.status;
  const bool is_over = status == TOLK_GONE || status == TOLK_CLOSED || status == TOLK_TIMED_OUT;
  if (is_over && record->data && record->data->call) record->data->call->tell_kept_reply(*record);
  const auto data = std::move(record->data);
  if (!data) return deliver(record, when);
  const auto delivery = std::move(data->delivery);
  delivery->prepare(*this, record, when);
  data->end(delivery);
}

void CallTable::deliver(const std::shared_ptr<CallRecord>& record, Callbacks::When when) {
  if (record->done != nullptr) {
    if (record->group && !record->group->outcomes.push(record)) return;
    return callbacks_.dispatch(record, when);
  }
  if (record->is_own) return;
  {
    const auto shard = shard_of(record->number).lock();
    record->finished = true;
  }
  // Without the lock, which the woken thread takes first.
  record->ended.notify_all();
}

bool CallTable::complete(std::uint64_t number, const MakeOutcome& make, Callbacks::When when) {
  const auto record = take(number);
  if (!record) return false;
  settle(record, make(*record), when);
  return true;
}

bool CallTable::complete_of(std::uint64_t peer, std::uint64_t number, const MakeOutcome& make) {
  {
    const auto shard = shard_of(number).lock();
    const auto at = shard->records.find(number);
    if (at == shard->records.end() || at->second->peer != peer) return false;
  }
  return complete(number, make, Callbacks::When::now);
}

CallRecord* CallTable::open_record(const Shard& shard, std::uint64_t number) {
  const auto at = shard.records.find(number);
  return at == shard.records.end() || at->second->taken ? nullptr : at->second.get();
}

std::shared_ptr<CallData> CallTable::data_of(std::uint64_t peer, std::uint64_t number) {
  const auto shard = shard_of(number).lock();
  const CallRecord* const record = open_record(*shard, number);
  return record == nullptr || record->peer != peer ? nullptr : record->data;
}

std::shared_ptr<CallData> CallTable::data_for(std::uint64_t peer, std::uint64_t number) {
  const auto made = new_data();
  const auto shard = shard_of(number).lock();
  CallRecord* const record = open_record(*shard, number);
  if (record == nullptr || record->peer != peer) return nullptr;
  if (!record->data) record->data = made;
  return record->data;
}

std::uint64_t CallTable::deadline_of(std::uint64_t number) {
  const auto shard = shard_of(number).lock();
  const CallRecord* const record = open_record(*shard, number);
  return record == nullptr ? 0 : record->deadline.load();
}

std::uint64_t CallTable::move_deadline(std::uint64_t number, std::uint64_t deadline,
                                       std::int32_t limit_ms, bool only_later) {
  const auto shard = shard_of(number).lock();
  CallRecord* const record = open_record(*shard, number);
  if (record == nullptr) return 0;
  const std::uint64_t before = record->deadline;
  if (only_later && before >= deadline) return before;
  record->deadline = deadline;
  record->limit_ms = limit_ms;
  if (deadline < before) record->ended.notify_all();
  return before;
}

std::uint64_t CallTable::find_by_call_id(std::uint64_t peer, int call_id) {
  for (const auto& guarded_shard : shards_) {
    const auto shard = guarded_shard.lock();
    for (const auto& [number, record] : shard->records) {
      if (record->peer == peer && call_id_of(number) == call_id) return number;
    }
  }
  return 0;
}

// The calls are taken first and then completed: a callback may start or cancel others.
template <class Matches>
void CallTable::complete_where(const Matches& matches, const MakeOutcome& make, bool close) {
  for (const auto& guarded_shard : shards_) {
    std::shared_ptr<CallRecord> first;
    {
      const auto shard = guarded_shard.lock();
      shard->closed = shard->closed || close;
      for (auto at = shard->records.begin(); at != shard->records.end();) {
        const std::shared_ptr<CallRecord>& record = at->second;
        const bool takes = !record->taken && matches(*record);
        const bool listed = record->done == nullptr && !record->is_own;
        if (takes) {
          record->taken = true;
          record->next = std::exchange(first, record);
        }
        at = takes && !listed ? shard->records.erase(at) : std::next(at);
      }
    }
    while (first) {
      const auto record = std::exchange(first, std::move(first->next));
      settle(record, make(*record), Callbacks::When::now);
    }
  }
}

void CallTable::complete_all_of(std::uint64_t peer, const MakeOutcome& make) {
  complete_where([&](const CallRecord& record) { return record.peer == peer; }, make, false);
}

void CallTable::close(const MakeOutcome& make) {
  complete_where([](const CallRecord&) { return true; }, make, true);
}

void CallTable::forget() {
  for (const auto& guarded_shard : shards_) {
    Records old;
    {
      const auto shard = guarded_shard.lock();
      old.swap(shard->records);
    }
  }
}

bool CallTable::has(std::uint64_t number) const {
  return shard_of(number).lock()->records.contains(number);
}

CallTable::Waited CallTable::wait(std::uint64_t number, std::uint64_t latest,
                                  const MakeOutcome& given_up, Outcome* outcome) {
  thread_local WaitScore waits;
  const WorkerPool::Blocked others_may_run;
  const WorkerWait worker_wait(*this, number);
  auto shard = shard_of(number).lock();
  const auto at = shard->records.find(number);
  if (at == shard->records.end() || at->second->done != nullptr || at->second->awaited)
    return Waited::none;
  const std::shared_ptr<CallRecord> record = at->second;
  record->awaited = true;
  const auto finished = [&](const Shard&) { return record->finished.load(); };
  const Instant begin = instant_now();
  if (!record->finished && latest != 0 && waits.pays(begin)) {
    shard.unlock();
    while (!record->finished && instant_now() - begin < kStayAwake) let_others_run();
    shard.relock();
  }
  // Data of the call move the deadline.
  while (!record->finished && !worker_wait.ends() && uv_hrtime() < record->deadline) {
    if (uv_hrtime() >= latest) {
      record->awaited = false;
      return Waited::goes_on;
    }
    const std::uint64_t deadline = std::min(latest, record->deadline.load());
    const auto changed = [&](const Shard&) {
      return record->finished || worker_wait.ends() || record->deadline < deadline;
    };
    if (deadline == UINT64_MAX) {
      shard.wait(record->ended, changed);
    } else {
      shard.wait_for(record->ended, until(deadline), changed);
    }
  }
  const Instant end = instant_now();
  waits.waited(end - begin, end);
  if (!std::exchange(record->taken, true)) {
    shard.unlock();
    settle(record, given_up(*record), Callbacks::When::later);
    shard.relock();
  }
  shard.wait(record->ended, finished);  // somebody makes the outcome, or ends the data
  *outcome = std::move(record->outcome);
  shard->records.erase(number);
  return Waited::ended;
}

}  // namespace tolk
