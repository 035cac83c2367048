// The synchronous calls of one side that wait for their replies.
//
// Thread: any. Owner: a record belongs to the call that waits on it, which removes it from the list
// before it destroys it; no post can hit a dead record. All happen under the list's lock, but that
// of the reply: its call would wake up only to wait for the lock. `remove` waits for such a post.
// Who wakes, exactly once per listing: the reply that carries the record's token, the timeout
// sweep, or a wake-all (which leaves records listed, so that they may be posted again).
// Failure: std::bad_alloc from add. Waking and sweeping allocate nothing.
#pragma once

#include <uv.h>

#include <cstddef>
#include <cstdint>
#include <list>
#include <unordered_map>

#include "transport/thread_safety.h"
#include "transport/unlocked_users.h"

// The wait record of one synchronous call.
struct timeout_sem {
  explicit timeout_sem(std::uint32_t limit_ms);
  ~timeout_sem() { uv_sem_destroy(&semaphore); }
  timeout_sem(const timeout_sem&) = delete;
  timeout_sem& operator=(const timeout_sem&) = delete;

  uv_sem_t semaphore{};
  std::uint32_t start = 0;     // tick at listing
  std::uint32_t timeout = 0;   // ms
  bool in_handler = false;     // a handler makes the call
  tolk::UnlockedUsers wakers;  // threads that are about to post it
  // Never used twice in a process: a late reply wakes no other call.
  const std::uint64_t token;
};

namespace tolk {

class WaitList {
 public:
  // What a limit of 0 ms means: on a client no limit, on a server the next sweep.
  enum class Zero { no_limit, next_sweep };

  explicit WaitList(Zero zero) : zero_(zero) {}

  // Stamps the record with the tick and lists it.
  void add(timeout_sem& record);
  void remove(timeout_sem& record);
  // Posts the record that has this token, if it is still listed, and removes it.
  void wake(std::uint64_t token);
  // Posts all and leaves them listed.
  void wake_all();
  // At the exit of the process: posts the records of handlers, now and as they come.
  void wake_handlers();
  // Posts the records whose limit has passed and removes them.
  void sweep();
  std::size_t size();

  // For the kept public name of the clients' list.
  std::list<timeout_sem*>& records() { return records_; }

 private:
  using Place = std::list<timeout_sem*>::iterator;

  bool expired(const timeout_sem& record, std::uint32_t now) const;
  void list(timeout_sem& record) TOLK_REQUIRES(mutex_);
  bool places_are_right() const TOLK_REQUIRES(mutex_);
  Place place_of(std::uint64_t token) TOLK_REQUIRES(mutex_);
  void take_off(const timeout_sem& record) TOLK_REQUIRES(mutex_);
  timeout_sem* take_for_post(std::uint64_t token);

  const Zero zero_;
  Mutex mutex_;
  // In the order in which they came, and by token, so that no call costs more the more others wait.
  std::list<timeout_sem*> records_ TOLK_GUARDED_BY(mutex_);
  std::unordered_map<std::uint64_t, Place> by_token_ TOLK_GUARDED_BY(mutex_);
};

// A record that is on a list for as long as this lives.
class Listed {
 public:
  Listed(WaitList& list, timeout_sem& record) : list_(list), record_(record) { list_.add(record_); }
  ~Listed() { list_.remove(record_); }
  Listed(const Listed&) = delete;
  Listed& operator=(const Listed&) = delete;

 private:
  WaitList& list_;
  timeout_sem& record_;
};

// Both lists of the process.
WaitList& client_waits();
WaitList& server_waits();

}  // namespace tolk
