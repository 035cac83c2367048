// The timer that ends calls whose timeout has passed: a sweep over one wait list, again and again.
// Thread: loop. Owner: the side; the storage stays until the loop that it was started on is closed.
// Failure: false when libuv has no timer.
#pragma once

#include <uv.h>

#include "platform/guarded.h"
#include "transport/thread_safety.h"
#include "transport/wait_list.h"

namespace tolk {

class SweepTimer {
 public:
  static constexpr unsigned kFirstMs = 500;
  static constexpr unsigned kStepMs = 100;

  explicit SweepTimer(WaitList& waits) : waits_(waits) {}

  // Once for each loop.
  bool init(uv_loop_t* loop) TOLK_LOOP {
    timer_.data = &waits_;
    return uv_timer_init(loop, &timer_) == 0;
  }
  // A started timer goes on as it is.
  bool start(unsigned step_ms) TOLK_LOOP {
    if (!started_) started_ = uv_timer_start(&timer_, sweep_cb, kFirstMs, step_ms) == 0;
    return started_;
  }
  bool started() const TOLK_LOOP { return started_; }

  void set_step(unsigned ms) TOLK_LOOP {
    if (started_) uv_timer_set_repeat(&timer_, ms);
  }

 private:
  static void sweep_cb(uv_timer_t* timer) {
    guarded([timer] { static_cast<WaitList*>(timer->data)->sweep(); });
  }

  WaitList& waits_;
  uv_timer_t timer_ TOLK_GUARDED_BY(loop_role){};
  bool started_ TOLK_GUARDED_BY(loop_role) = false;
};

}  // namespace tolk
