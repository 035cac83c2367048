// The synchronous calls of one side that wait for their answers.
//
// Thread: any. Owner: a record belongs to the call that waits on it, which takes it off the list
// before it destroys it; every post happens under the list's lock, so none can hit a dead record.
// Who wakes, exactly once per listing: the reply that carries the record's token, the time-out
// sweep, or a wake-all (which leaves records listed, so that they may be posted again).
#pragma once

#include <uv.h>

#include <cstddef>
#include <cstdint>
#include <list>

#include "transport/thread_safety.h"

// The wait record of one synchronous call.
struct timeout_sem {
  explicit timeout_sem(std::uint32_t limit_ms) : timeout(limit_ms) { uv_sem_init(&semaphore, 0); }
  ~timeout_sem() { uv_sem_destroy(&semaphore); }
  timeout_sem(const timeout_sem&) = delete;
  timeout_sem& operator=(const timeout_sem&) = delete;

  uv_sem_t semaphore{};
  std::uint32_t start = 0;    // tick at listing
  std::uint32_t timeout = 0;  // ms
  bool in_handler = false;    // of a call that a handler makes
  std::uint64_t token = 0;    // never used twice in a process: a late answer wakes nobody else
};

namespace tolk {

class WaitList {
 public:
  // What a limit of 0 ms means: on a client no limit, on a server the next sweep.
  enum class Zero { no_limit, next_sweep };

  explicit WaitList(Zero zero) : zero_(zero) {}

  // Stamps the record with the tick and a token, and lists it.
  void add(timeout_sem& record);
  void remove(timeout_sem& record);
  // Posts the record that has this token, if it is still listed, and takes it off.
  void wake(std::uint64_t token);
  // Posts all and leaves them listed.
  void wake_all();
  // At the exit of the process: posts those of handlers, now and as they come.
  void wake_handlers();
  // Posts the records whose limit has passed and takes them off.
  void sweep();
  std::size_t size();

  // For the kept public name of the clients' list.
  std::list<timeout_sem*>& records() { return records_; }

 private:
  bool expired(const timeout_sem& record, std::uint32_t now) const;

  const Zero zero_;
  Mutex mutex_;
  std::list<timeout_sem*> records_ TOLK_GUARDED_BY(mutex_);
};

// Both lists of the process; never destroyed, since loop threads outlive main.
WaitList& client_waits();
WaitList& server_waits();

}  // namespace tolk
