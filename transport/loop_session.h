// One life of a libuv loop on one thread: a client's connection attempt and what follows, or a
// server's listening. A reconnect is a new session.
//
// Thread: the session's own thread runs `body` and everything marked "loop"; other threads post
// tasks and wait for its milestones. Being on that thread is a capability like holding a lock: what
// is its alone is marked with it, and who comes in from libuv says so by check_loop_thread().
// Owner: shared; the loop thread holds a reference until the loop is closed, so nothing that the
// loop touches goes away under it. The side's core outlives its sessions' threads.
// Waits: a milestone is reached by the loop thread, always, in the end; a wait in a forked child
// or on the session's own thread ends at once.
// Shutdown: the loop is always drained and closed. Work items that still run are waited for by the
// loop thread alone, after `ended` ("lingering").
#pragma once

#include <uv.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <thread>

#include "transport/hand_off.h"
#include "transport/thread_safety.h"

namespace tolk {

// While alive, the calling thread counts as one that runs a loop.
class LoopThreadScope {
 public:
  LoopThreadScope();
  ~LoopThreadScope();
  LoopThreadScope(const LoopThreadScope&) = delete;
  LoopThreadScope& operator=(const LoopThreadScope&) = delete;
};

class TOLK_CAPABILITY("loop thread") LoopSession
    : public std::enable_shared_from_this<LoopSession> {
 public:
  enum class Milestone { made, decided, stopped, ended };

  LoopSession();
  virtual ~LoopSession();
  LoopSession(const LoopSession&) = delete;
  LoopSession& operator=(const LoopSession&) = delete;

  // Host: runs `body` on a detached thread that holds the session and `keep_alive`. False when no
  // thread can be had.
  bool start_thread(std::shared_ptr<void> keep_alive, std::function<void()> body);
  // The calling thread becomes the loop thread.
  void adopt_this_thread() TOLK_ASSERTS(this);

  // Any thread.
  bool on_own_thread() const { return owner_.load() == std::this_thread::get_id(); }
  // Whether the calling thread runs a loop of any session.
  static bool on_a_loop_thread();
  bool of_this_process() const;
  // False when the session is over, or another process's: the task was refused then.
  bool post(std::unique_ptr<LoopTask> task);
  template <class Function>
  bool post_function(Function function) {
    return post(std::make_unique<FunctionTask<Function>>(std::move(function)));
  }
  // The task of make_ready, once; whoever ends a session needs no memory for it.
  void post_ready();
  void wait_for(Milestone milestone);
  bool wait_for(Milestone milestone, std::chrono::milliseconds limit);
  // Work that was queued and has not begun is not begun any more.
  bool stopping() const { return stopping_; }

  // Loop.
  uv_loop_t* loop() TOLK_REQUIRES(this) { return &loop_; }
  void reach(Milestone milestone);
  void check_loop_thread() const TOLK_ASSERTS(this);  // at run time in debug builds alone

 protected:
  void make_ready(std::unique_ptr<LoopTask> task) { hand_off_.make_ready(std::move(task)); }

  // Loop. In the order of a life:
  int open_loop() TOLK_REQUIRES(this);                  // a libuv status
  int open_hand_off() TOLK_REQUIRES(this);              // a libuv status
  void run_loop() TOLK_REQUIRES(this);                  // until stop_loop
  void begin_stop() TOLK_REQUIRES(this);                // refuses all posts from here on
  void close_all_handles() TOLK_REQUIRES(this);         // those that are not closing yet
  void stop_loop() TOLK_REQUIRES(this);                 // makes run_loop return
  void run_until_handles_closed() TOLK_REQUIRES(this);  // not until requests are gone
  void linger_and_close_loop() TOLK_REQUIRES(this);     // until requests are gone
  void leave_thread() TOLK_REQUIRES(this);              // the session has no thread from here on

  // A loop that was never run to its end, on the thread that drops the session.
  void abandon_loop();
  uv_handle_t* wake_up() TOLK_REQUIRES(this) { return reinterpret_cast<uv_handle_t*>(&wake_up_); }

  static void close_handle(uv_handle_t* handle);

 private:
  bool has_handles() TOLK_REQUIRES(this);

  const std::uint32_t process_;
  std::atomic<std::thread::id> owner_{};
  std::atomic<bool> stopping_{false};
  uv_loop_t loop_ TOLK_GUARDED_BY(this){};
  bool loop_open_ TOLK_GUARDED_BY(this) = false;
  uv_async_t wake_up_ TOLK_GUARDED_BY(this){};
  HandOff hand_off_;
  std::condition_variable reached_;
  Guarded<Milestone> milestone_;
};

}  // namespace tolk
