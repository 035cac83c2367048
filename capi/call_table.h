// The calls of one object that wait for their outcome, and the only place where they get it.
//
// Whoever takes a call's record off the table completes the call; all others find nothing. A call
// with a callback then becomes a task. Another one keeps its outcome here until the wait for it.
//
// Thread: any. Owner: the object; a thread that waits holds its record too. No lock is held while a
// callback is dispatched.
// Failure: std::bad_alloc from add, before the call is in the table. Completing needs no memory.
#pragma once

#include <tolk/c.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "capi/block.h"
#include "capi/call_data.h"
#include "capi/callbacks.h"
#include "capi/error.h"
#include "capi/ordered_queue.h"
#include "transport/thread_safety.h"

namespace tolk {

struct Outcome {
  tolk_status status = TOLK_OK;
  std::unique_ptr<tolk_block> result;
  ErrorRef error;

  static Outcome of(Failure failure) noexcept;
  // The same for a failure that `make` makes. Without memory for it, the outcome has its status.
  template <class MakeFailure>
  static Outcome failed(tolk_status status, const MakeFailure& make) noexcept {
    try {
      return of(make());
    } catch (const std::exception&) {
      return without_texts(status);
    }
  }
  static Outcome without_texts(tolk_status status) noexcept;
};

// Calls that were started as one, for all clients of a server. Their callbacks come one after the
// other, so that the last may free what all of them use.
struct CallGroup {
  std::uint64_t number = 0;
  std::size_t left = 0;  // of the callback that runs
  std::vector<std::uint64_t> calls;
  std::atomic<bool> is_cancelled{false};  // those that have not begun, too
  OrderedQueue outcomes;
};

struct CallRecord final : tolk_task {
  CallRecord(bool runs_inline) : tolk_task(Kind::outcome, runs_inline) {}

  std::uint64_t number = 0;
  std::uint64_t peer = 0;
  std::string method;
  std::atomic<std::uint64_t> deadline{UINT64_MAX};   // of uv_hrtime; data move it
  std::atomic<std::int32_t> limit_ms{TOLK_FOREVER};  // what the deadline comes from
  tolk_done done = nullptr;
  void* context = nullptr;
  std::shared_ptr<CallGroup> group;
  std::shared_ptr<CallData> data;  // until the call has an outcome
  bool is_own = false;             // of the library: nobody waits for its outcome
  Outcome outcome;

  // Under the lock of the table, for a call without `done`.
  bool taken = false;                 // somebody makes its outcome
  std::atomic<bool> finished{false};  // read without the lock as well
  bool awaited = false;
  std::condition_variable ended;
  std::shared_ptr<CallRecord> next;  // of those that complete_where takes

 private:
  void run_claimed() override;
  bool is_for_workers() const override { return is_own; }
};

class CallTable {
 public:
  static std::shared_ptr<CallData> new_data();
  explicit CallTable(Callbacks& callbacks) : callbacks_(callbacks) {}

  // False: the table is closed.
  bool add(const std::shared_ptr<CallRecord>& record);
  // For a call that is refused: its outcome is there, as if it had been in the table.
  void add_finished(const std::shared_ptr<CallRecord>& record, Outcome outcome);

  // Makes the outcome of a call. Refers to a function of the caller; one that runs out of memory
  // makes TOLK_NO_MEMORY.
  class MakeOutcome {
   public:
    template <class Function>
    MakeOutcome(const Function& function) noexcept  // implicit: for lambdas
        : function_(&function), call_([](const void* to, const CallRecord& record) {
            return (*static_cast<const Function*>(to))(record);
          }) {}
    Outcome operator()(const CallRecord& record) const noexcept;

   private:
    const void* function_;
    Outcome (*call_)(const void*, const CallRecord&);
  };

  // False: there is no such call, or it has an outcome.
  bool complete(std::uint64_t number, const MakeOutcome& make, Callbacks::When when);
  // The same if the call is one to this peer.
  bool complete_of(std::uint64_t peer, std::uint64_t number, const MakeOutcome& make);
  // The call to this peer that has this call id; 0 without one.
  std::uint64_t find_by_call_id(std::uint64_t peer, int call_id);
  // The data of a call to this peer. Null: there are none, or there is no such call.
  std::shared_ptr<CallData> data_of(std::uint64_t peer, std::uint64_t number);
  // The same; makes them if there are none yet.
  std::shared_ptr<CallData> data_for(std::uint64_t peer, std::uint64_t number);
  // 0: there is no such call.
  std::uint64_t deadline_of(std::uint64_t number);
  // The deadline before; 0 without such a call.
  std::uint64_t move_deadline(std::uint64_t number, std::uint64_t deadline, std::int32_t limit_ms,
                              bool only_later);
  void complete_all_of(std::uint64_t peer, const MakeOutcome& make);
  // Completes all, and refuses what comes.
  void close(const MakeOutcome& make);
  // From a close on, no call comes.
  bool is_closed() const { return shards_.back().lock()->closed; }
  // Nobody waits for an outcome any more.
  void forget();
  bool has(std::uint64_t number) const;

  enum class Waited { ended, goes_on, none };
  // Waits for the outcome and takes it, unless there is no such call to wait for, or it goes on at
  // `latest`, where 0 is not to wait. `given_up` makes the outcome when the call's limit passes, or
  // the process exits and the thread is a worker.
  Waited wait(std::uint64_t number, std::uint64_t latest, const MakeOutcome& given_up,
              Outcome* outcome);

 private:
  class WorkerWait;
  friend class Delivery;
  using Records = std::unordered_map<std::uint64_t, std::shared_ptr<CallRecord>>;
  struct Shard {
    Records records;
    bool closed = false;
  };
  static constexpr std::size_t kShards = 16;

  const Guarded<Shard>& shard_of(std::uint64_t number) const {
    return shards_[number / 2 % kShards];  // numbers are odd
  }
  // Null: there is none that has no outcome.
  static CallRecord* open_record(const Shard& shard, std::uint64_t number);
  // Null: there is no such call, or somebody has taken it.
  std::shared_ptr<CallRecord> take(std::uint64_t number);
  void settle(const std::shared_ptr<CallRecord>& record, Outcome outcome, Callbacks::When when);
  void deliver(const std::shared_ptr<CallRecord>& record, Callbacks::When when);
  template <class Matches>
  void complete_where(const Matches& matches, const MakeOutcome& make, bool close);

  Callbacks& callbacks_;
  std::array<Guarded<Shard>, kShards> shards_;
};

}  // namespace tolk
