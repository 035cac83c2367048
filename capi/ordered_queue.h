// Tasks that run one after the other: the next begins when the one before it is over.
//
// Thread: any. Owner: of the tasks that wait. Failure: std::bad_alloc from push.
#pragma once

#include <list>
#include <memory>

#include "capi/callbacks.h"
#include "transport/thread_safety.h"

namespace tolk {

class OrderedQueue {
 public:
  // True: it is this task's turn now. Otherwise `next` gives it later.
  bool push(const std::shared_ptr<tolk_task>& task) {
    const auto state = state_.lock();
    if (!std::exchange(state->busy, true)) return true;
    state->waiting.push_back(task);
    return false;
  }

  // A task is over. The one whose turn it is now; null without one.
  std::shared_ptr<tolk_task> next() {
    const auto state = state_.lock();
    if (state->waiting.empty()) {
      state->busy = false;
      return nullptr;
    }
    std::shared_ptr<tolk_task> task = std::move(state->waiting.front());
    state->waiting.pop_front();
    return task;
  }

  // Drops what waits.
  void clear() {
    std::list<std::shared_ptr<tolk_task>> dropped;  // freed after the lock
    state_.lock()->waiting.swap(dropped);
  }

 private:
  struct State {
    bool busy = false;
    std::list<std::shared_ptr<tolk_task>> waiting;
  };

  Guarded<State> state_;
};

}  // namespace tolk
