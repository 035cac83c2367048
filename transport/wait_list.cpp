#include "transport/wait_list.h"

#include <algorithm>
#include <atomic>

#include "transport/call_table.h"
#include "transport/handler_scope.h"

namespace tolk {
namespace {

// Odd steps from an odd base: a token is never 0 and looks like no small number of the host's.
std::uint64_t next_token() {
  static std::atomic<std::uint64_t> counter{uv_hrtime() | 1};
  return counter.fetch_add(2, std::memory_order_relaxed);
}

}  // namespace

void WaitList::add(timeout_sem& record) {
  record.start = call_table.tick_ms();
  record.token = next_token();
  record.in_handler = HandlerScope::inside();
  const MutexLock lock(mutex_);
  records_.push_back(&record);
  if (record.in_handler && process_exits()) uv_sem_post(&record.semaphore);
}

void WaitList::remove(timeout_sem& record) {
  const MutexLock lock(mutex_);
  records_.remove(&record);
}

void WaitList::wake(std::uint64_t token) {
  const MutexLock lock(mutex_);
  const auto at = std::find_if(records_.begin(), records_.end(),
                               [&](const timeout_sem* record) { return record->token == token; });
  if (at == records_.end()) return;
  uv_sem_post(&(*at)->semaphore);
  records_.erase(at);
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
  const std::uint32_t now = call_table.tick_ms();
  records_.remove_if([&](timeout_sem* record) {
    if (!expired(*record, now)) return false;
    uv_sem_post(&record->semaphore);
    return true;
  });
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
  static auto* const list = new WaitList(WaitList::Zero::no_limit);
  return *list;
}

WaitList& server_waits() {
  static auto* const list = new WaitList(WaitList::Zero::next_sweep);
  return *list;
}

}  // namespace tolk
