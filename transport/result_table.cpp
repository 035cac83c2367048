#include "transport/result_table.h"

#include <utility>

#include "transport/pause_point.h"

namespace tolk {

void ResultTable::store(int call_id, const SharedBytes& payload) {
  TOLK_PAUSE_POINT("result.before_store");
  put(call_id, payload.owner ? TolkParamsAccess::parsed_shared(payload)
                             : TolkParamsAccess::parsed(payload.view));
  TOLK_PAUSE_POINT("result.stored");
}

void ResultTable::put(int call_id, TolkParamsAccess::ContentRef content) {
  TolkParamsAccess::ContentRef released;  // dies after the lock
  const MutexLock lock(lock_);
  Entry& entry = entries_[call_id];
  // Whoever reads the present content may still need it: its place is there before it is exchanged.
  entry.retained.reserve(entry.retained.size() + 1);
  if (!entry.block) {
    entry.block = std::make_unique<TolkParams>();
    TolkParamsAccess::make_refreshable(*entry.block);
  }
  if (expected_ == call_id) expected_reply_ = content;
  bool touched = false;
  content = TolkParamsAccess::exchange(*entry.block, std::move(content), &touched);
  if (!touched || expected_ == call_id) return;
  entry.retained.push_back(std::move(content));
  if (entry.retained.size() > kRetained) {
    released = std::move(entry.retained.front());
    entry.retained.erase(entry.retained.begin());
  }
}

ResultTable::Expectation::Expectation(ResultTable& table, int call_id) : table_(table) {
  table_.drop_retained(call_id);
  const MutexLock lock(table_.lock_);
  table_.expected_ = call_id;
}

ResultTable::Expectation::~Expectation() {
  TolkParamsAccess::ContentRef released;  // dies after the lock
  const MutexLock lock(table_.lock_);
  table_.expected_.reset();
  std::swap(released, table_.expected_reply_);
}

TolkParamsAccess::ContentRef ResultTable::Expectation::reply() {
  const MutexLock lock(table_.lock_);
  return table_.expected_reply_;
}

void ResultTable::drop_retained(int call_id) {
  std::vector<TolkParamsAccess::ContentRef> released;  // dies after the lock
  const MutexLock lock(lock_);
  const auto at = entries_.find(call_id);
  if (at != entries_.end()) released.swap(at->second.retained);
}

TolkParams* ResultTable::find(int call_id) {
  const MutexLock lock(lock_);
  const auto at = entries_.find(call_id);
  return at == entries_.end() ? nullptr : at->second.block.get();
}

void ResultTable::drop(int call_id) {
  std::map<int, Entry>::node_type dropped;  // dies after the lock
  const MutexLock lock(lock_);
  dropped = entries_.extract(call_id);
}

void ResultTable::clear() {
  std::map<int, Entry> dropped;  // dies after the lock
  const MutexLock lock(lock_);
  dropped.swap(entries_);
}

std::size_t ResultTable::size() {
  const MutexLock lock(lock_);
  return entries_.size();
}

Mutex& client_result_lock() {
  static constinit Mutex lock;
  return lock;
}

Mutex& server_result_lock() {
  static constinit Mutex lock;
  return lock;
}

}  // namespace tolk
