#include "transport/wait_list.h"

#include <algorithm>

#include "platform/never_destroyed.h"
#include "transport/pause_point.h"
#include "transport/process_exit.h"
#include "transport/system_calls.h"
#include "transport/token.h"

namespace tolk {
namespace {

const AtProcessExit wake_handlers_at_exit([] {
  client_waits().wake_handlers();
  server_waits().wake_handlers();
});

}  // namespace

void WaitList::add(timeout_sem& record) {
  {
    record.start = system_calls.tick_ms();
    record.in_handler = HandlerScope::inside();
    const MutexLock lock(mutex_);
    list(record);
    if (record.in_handler && process_exits()) uv_sem_post(&record.semaphore);
  }
  TOLK_PAUSE_POINT("wait.listed");
}

void WaitList::list(timeout_sem& record) {
  const auto indexed = by_token_.emplace(record.token, records_.end()).first;
  try {
    indexed->second = records_.insert(records_.end(), &record);
  } catch (...) {
    by_token_.erase(indexed);
    throw;
  }
}

void WaitList::remove(timeout_sem& record) {
  {
    const MutexLock lock(mutex_);
    take_off(record);
  }
  record.wakers.wait_until_left();
}

// Hosts can reach the list, and may have changed it.
bool WaitList::places_are_right() const { return records_.size() == by_token_.size(); }

WaitList::Place WaitList::place_of(std::uint64_t token) {
  if (places_are_right()) {
    const auto indexed = by_token_.find(token);
    return indexed == by_token_.end() ? records_.end() : indexed->second;
  }
  return std::find_if(records_.begin(), records_.end(),
                      [&](const timeout_sem* listed) { return listed->token == token; });
}

void WaitList::take_off(const timeout_sem& record) {
  if (places_are_right()) {
    const Place place = place_of(record.token);
    if (place != records_.end()) records_.erase(place);
  } else {
    records_.remove(const_cast<timeout_sem*>(&record));
  }
  by_token_.erase(record.token);
}

void WaitList::wake(std::uint64_t token) {
  timeout_sem* const record = take_for_post(token);
  if (record == nullptr) return;
  TOLK_PAUSE_POINT("wait.before_wake");
  uv_sem_post(&record->semaphore);
  TOLK_PAUSE_POINT("wait.woken");
  record->wakers.leave();
}

timeout_sem* WaitList::take_for_post(std::uint64_t token) {
  const MutexLock lock(mutex_);
  const Place place = place_of(token);
  if (place == records_.end()) return nullptr;
  timeout_sem* const record = *place;
  record->wakers.enter();
  take_off(*record);
  return record;
}

void WaitList::wake_all() {
  const MutexLock lock(mutex_);
  for (timeout_sem* record : records_) uv_sem_post(&record->semaphore);
}

void WaitList::wake_handlers() {
  const MutexLock lock(mutex_);
  for (timeout_sem* record : records_) {
    if (record->in_handler) uv_sem_post(&record->semaphore);
  }
}

void WaitList::sweep() {
  const MutexLock lock(mutex_);
  // The tick is read under the lock: read before it, it could be older than a record that was
  // listed meanwhile, and the difference would wrap to a huge age.
  const std::uint32_t now = system_calls.tick_ms();
  for (auto at = records_.begin(); at != records_.end();) {
    timeout_sem& record = **at;
    if (!expired(record, now)) {
      ++at;
      continue;
    }
    at = records_.erase(at);
    by_token_.erase(record.token);
    uv_sem_post(&record.semaphore);
  }
}

std::size_t WaitList::size() {
  const MutexLock lock(mutex_);
  return records_.size();
}

bool WaitList::expired(const timeout_sem& record, std::uint32_t now) const {
  if (record.timeout == 0 && zero_ == Zero::no_limit) return false;
  return now - record.start > record.timeout;
}

WaitList& client_waits() {
  static NeverDestroyed<WaitList> list(WaitList::Zero::no_limit);
  return *list;
}

WaitList& server_waits() {
  static NeverDestroyed<WaitList> list(WaitList::Zero::next_sweep);
  return *list;
}

}  // namespace tolk

timeout_sem::timeout_sem(std::uint32_t limit_ms) : timeout(limit_ms), token(tolk::next_token()) {
  uv_sem_init(&semaphore, 0);
}
