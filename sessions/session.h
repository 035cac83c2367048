// One life of a libuv loop on one thread: a client's connection attempt and what follows, or a
// server's listening. A reconnect is a new session.
//
// A session says what happened, by the events of its side; the side decides what is printed, called
// and returned.
//
// Thread: the session's own thread runs `body` and everything annotated TOLK_LOOP. Other threads
// post tasks, ask for the end and wait for a phase. Owner: shared. The loop thread holds a
// reference until the loop is closed, so nothing that the loop uses goes away under it. The side
// outlives the threads of its sessions. Waits: the loop thread enters every phase that somebody
// waits for, always, in the end. A wait in a forked child or on the session's own thread ends at
// once.
#pragma once

#include <uv.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include "transport/peer_stream.h"
#include "transport/staying_awake.h"
#include "transport/task_queue.h"
#include "transport/thread_safety.h"
#include "transport/work_queue.h"

namespace tolk {

// The life of a session. The way from one phase to the next is in `may_follow` (session.cpp); what
// is done on the way to the end is in close.cpp.
enum class Phase {
  starting,          // the loop thread connects, or binds and listens
  live,              // frames are read and written
  close_asked,       // close() was called; the loop thread has not heard of it yet
  closeasync_asked,  // the same for closeasync() of a server
  lost,              // the server of a client went: nothing is sent, queued calls still begin
  closed,            // the loop thread has carried out what was asked: nothing begins any more
  ended,             // the handles are closed; only the loop thread may still wait, for workers
};

class Session : public StreamOwner {
 public:
  Session();
  ~Session() override;
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Host: runs the session on a detached thread that holds it and its side. False when no
  // thread could be created.
  bool start_thread();
  // The calling thread becomes the loop thread.
  void adopt_this_thread() TOLK_ASSERTS(loop_role);

  // Any thread.
  bool on_own_thread() const { return owner_thread_.load() == std::this_thread::get_id(); }
  // Whether the calling thread runs a loop of any session.
  static bool on_a_loop_thread();
  bool of_this_process() const;
  Phase phase() const { return phase_; }
  // Changes the phase. False when another ending came first; nothing changes then.
  bool enter(Phase next);
  // Until the attempt is decided: live, or over.
  void wait_until_decided();
  void wait_until_ended();
  bool wait_until_ended(std::chrono::milliseconds limit);

  // False when the session is over, or another process's: the task was refused then.
  bool post(std::unique_ptr<Task> task);
  // Makes the loop thread carry out the ending that was asked for. Needs no memory.
  void wake_for_end();
  // Loop. False when there is no such peer; nothing is written then.
  virtual bool deliver(int peer, Frame frame) TOLK_LOOP = 0;

  MessageSide& side() override = 0;
  uv_loop_t* loop() TOLK_LOOP override { return &loop_; }
  void begin_work(std::unique_ptr<WorkItem> call) TOLK_LOOP override;
  void check_loop_thread() const TOLK_ASSERTS(loop_role) override;
  bool takes_messages() const override;  // any thread

 protected:
  // Loop: the whole life.
  virtual void body() TOLK_LOOP = 0;
  // Loop: carries out the ending that was asked for.
  virtual void carry_out_ending() TOLK_LOOP = 0;
  // Loop: the body broke off before the session ended, for lack of memory. Needs none.
  virtual void on_broken_off() TOLK_LOOP = 0;
  virtual const char* kind() const = 0;

  // Loop. In the order of a life:
  int open_loop() TOLK_LOOP;      // a libuv status
  int open_queue() TOLK_LOOP;     // a libuv status
  bool run_loop() TOLK_LOOP;      // until stop_loop; false when it runs or has run
  void stop_loop() TOLK_LOOP;     // makes run_loop return
  void leave_thread() TOLK_LOOP;  // the session has no thread from here on
  // In close.cpp:
  void close_queue() TOLK_LOOP { queue_.close(); }                // refuses all posts from here on
  void close_all_handles(uv_handle_t* kept = nullptr) TOLK_LOOP;  // that are not closing yet
  void run_until_handles_closed() TOLK_LOOP;
  void finish() TOLK_LOOP;  // all handles are closed: waits for the end return
  void finish_loop();       // one that was not run to its end

 private:
  static void async_sendmsg(uv_async_t* wake_up);
  void run_thread();
  void turn_until_stopped() TOLK_LOOP;
  void wait_for_events() TOLK_LOOP;
  void work_off() TOLK_LOOP;
  bool has_handles() TOLK_LOOP;
  void linger_and_close_loop() TOLK_LOOP;  // until no worker runs for this loop

  // Constant.
  const std::uint32_t process_;
  // Any thread.
  std::atomic<std::thread::id> owner_thread_{};
  TaskQueue queue_;
  WorkQueue work_{queue_};
  std::atomic<Phase> phase_{Phase::starting};  // changed under the mutex
  std::mutex phase_mutex_;
  std::condition_variable phase_changed_;
  // Loop.
  uv_loop_t loop_ TOLK_GUARDED_BY(loop_role){};
  uv_async_t wake_up_ TOLK_GUARDED_BY(loop_role){};
  bool loop_open_ TOLK_GUARDED_BY(loop_role) = false;
  bool loop_ran_ TOLK_GUARDED_BY(loop_role) = false;
  bool stopped_ TOLK_GUARDED_BY(loop_role) = false;
  Instant quiet_since_ TOLK_GUARDED_BY(loop_role){};
  WaitScore quiet_times_ TOLK_GUARDED_BY(loop_role);
};

}  // namespace tolk
