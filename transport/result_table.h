// The latest reply of each call id, for one client or one server.
//
// Thread: any. Owner: the table owns the blocks; a block that was handed to a host stays at its
// address until the next synchronous call with that id (clients), clear() or the table's end.
// A later reply for the same id refreshes the block in place, even while the host reads it: its
// content is exchanged in one step. The last kRetained contents that the host may still hold
// pointers into are kept as long as the block.
// Failure: std::bad_alloc from store.
#pragma once

#include <tolk/TolkParams.h>

#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "params/content.h"
#include "transport/thread_safety.h"

namespace tolk {

class ResultTable {
 public:
  static constexpr std::size_t kRetained = 8;

  // `lock` is the process-wide result lock of the side; it guards every table of that side.
  explicit ResultTable(Mutex& lock) : lock_(lock) {}

  // Keeps what `payload` encodes as the result of `call_id`; parses outside the lock.
  void store(int call_id, std::string_view payload) {
    store(call_id, SharedBytes{nullptr, payload});
  }
  // The same. A payload that has an owner stays where it is.
  void store(int call_id, const SharedBytes& payload);
  // While alive, a call with this id runs. Earlier contents of its block are released now, the
  // present one as soon as it is refreshed. One at a time.
  class Expectation {
   public:
    Expectation(ResultTable& table, int call_id);
    ~Expectation();
    Expectation(const Expectation&) = delete;
    Expectation& operator=(const Expectation&) = delete;

    // The reply that came, held: it stays readable whatever becomes of the table. Empty if none.
    TolkParamsAccess::ContentRef reply();

   private:
    ResultTable& table_;
  };
  // A call with this id begins: old contents of its block go, the block and its present one stay.
  void drop_retained(int call_id);
  // The block that is kept for `call_id`, or null.
  TolkParams* find(int call_id);
  // Deletes the block that is kept for `call_id`.
  void drop(int call_id);
  void clear();

  std::size_t size();

 private:
  struct Entry {
    std::unique_ptr<TolkParams> block;
    std::vector<TolkParamsAccess::ContentRef> retained;  // oldest first
  };

  void put(int call_id, TolkParamsAccess::ContentRef content);

  Mutex& lock_;
  std::map<int, Entry> entries_ TOLK_GUARDED_BY(lock_);
  std::optional<int> expected_ TOLK_GUARDED_BY(lock_);
  TolkParamsAccess::ContentRef expected_reply_ TOLK_GUARDED_BY(lock_);
};

// The result locks of all clients and of all servers of the process; both are leaves.
Mutex& client_result_lock();
Mutex& server_result_lock();

}  // namespace tolk
