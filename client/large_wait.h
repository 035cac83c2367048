// The calls of SendMsgEx that wait for their results, in the whole process.
//
// Thread: any. Owner: a semaphore belongs to the call, which removes it before destroying it.
// "Is the client connected?" and "register" are one step. A lost client is disconnected first and
// posts then: a call either sees that the server is gone or is woken.
// Failure: std::bad_alloc from add_if. Waking allocates nothing.
#pragma once

#include <uv.h>

#include <map>

#include "transport/process_exit.h"
#include "transport/thread_safety.h"

namespace tolk {

class LargeWait {
 public:
  // Registers unless `connected()` returns false, and returns the same.
  template <class Connected>
  bool add_if(Connected connected, int call_id, uv_sem_t* semaphore) {
    auto waiting = waiting_.lock();
    if (!connected()) return false;
    waiting->by_id[call_id] = semaphore;
    waiting->in_handler = HandlerScope::inside();
    if (waiting->in_handler && process_exits()) uv_sem_post(semaphore);
    return true;
  }

  void post(int call_id) {
    auto waiting = waiting_.lock();
    const auto at = waiting->by_id.find(call_id);
    if (at != waiting->by_id.end()) uv_sem_post(at->second);
  }

  void post_all_and_forget() {
    auto waiting = waiting_.lock();
    for (const auto& [call_id, semaphore] : waiting->by_id) uv_sem_post(semaphore);
    waiting->by_id.clear();
  }

  void forget_all() { waiting_.lock()->by_id.clear(); }

  // At the exit of the process, which waits for its handlers.
  void wake_handler() {
    auto waiting = waiting_.lock();
    if (!waiting->in_handler) return;
    for (const auto& [call_id, semaphore] : waiting->by_id) uv_sem_post(semaphore);
  }

 private:
  struct Waiting {
    std::map<int, uv_sem_t*> by_id;  // one at most: large calls run one at a time
    bool in_handler = false;         // the call is a handler's
  };

  Guarded<Waiting> waiting_;
};

LargeWait& large_wait();

}  // namespace tolk
