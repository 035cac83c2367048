// The call of SendMsgEx that waits for its result: one at most in the whole process.
//
// Thread: any. Owner: a semaphore belongs to the call, which removes it before destroying it.
// "Is the client connected?" and "register" are one step. A lost client is disconnected first and
// posts then: a call either sees that the server is gone or is woken.
// Failure: none; nothing is allocated.
#pragma once

#include <uv.h>

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
    *waiting = {semaphore, call_id, HandlerScope::inside()};
    if (waiting->in_handler && process_exits()) uv_sem_post(semaphore);
    return true;
  }

  void post(int call_id) {
    const auto waiting = waiting_.lock();
    if (waiting->semaphore != nullptr && waiting->call_id == call_id) {
      uv_sem_post(waiting->semaphore);
    }
  }

  void post_and_forget() {
    auto waiting = waiting_.lock();
    if (waiting->semaphore != nullptr) uv_sem_post(waiting->semaphore);
    *waiting = {};
  }

  void forget() { *waiting_.lock() = {}; }

  // At the exit of the process, which waits for its handlers.
  void wake_handler() {
    const auto waiting = waiting_.lock();
    if (waiting->in_handler) uv_sem_post(waiting->semaphore);
  }

 private:
  struct Waiting {
    uv_sem_t* semaphore = nullptr;
    int call_id = 0;
    bool in_handler = false;  // a handler makes the call
  };

  Guarded<Waiting> waiting_;
};

LargeWait& large_wait();

}  // namespace tolk
