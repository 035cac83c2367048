// Tasks that run one after the other: the next begins when the one before it is over.
//
// Thread: any. Owner: of the tasks that wait. Failure: none.
#pragma once

#include <memory>
#include <utility>

#include "capi/callbacks.h"
#include "transport/thread_safety.h"

namespace tolk {

class OrderedQueue {
 public:
  // True: it is this task's turn now. Otherwise `next` gives it later.
  bool push(const std::shared_ptr<tolk_task>& task) {
    const auto state = state_.lock();
    if (!std::exchange(state->busy, true)) return true;
    auto& place = task->queue_place();
    place.task = task;
    state->waiting.add(place);
    return false;
  }

  // A task is over. The one whose turn it is now; null without one.
  std::shared_ptr<tolk_task> next() {
    const auto state = state_.lock();
    if (state->waiting.empty()) {
      state->busy = false;
      return nullptr;
    }
    return state->waiting.take_first();
  }

 private:
  struct State {
    bool busy = false;
    TaskRow waiting;
  };

  Guarded<State> state_;
};

}  // namespace tolk
