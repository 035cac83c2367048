#include "sessions/session.h"

#include <cassert>
#include <exception>
#include <utility>

#include "platform/guarded.h"
#include "platform/process.h"
#include "platform/thread.h"
#include "transport/pause_point.h"
#include "transport/process_exit.h"

namespace tolk {
namespace {

thread_local int loops_on_this_thread = 0;

// While alive, the calling thread counts as one that runs a loop.
struct LoopThreadScope {
  LoopThreadScope() { ++loops_on_this_thread; }
  ~LoopThreadScope() { --loops_on_this_thread; }
  LoopThreadScope(const LoopThreadScope&) = delete;
  LoopThreadScope& operator=(const LoopThreadScope&) = delete;
};

// The ways through a life. What was asked for first is carried out, unless the server of a client
// goes before.
bool may_follow(Phase now, Phase next) {
  switch (next) {
    case Phase::starting:
      return false;
    case Phase::live:
      return now == Phase::starting;
    case Phase::close_asked:
    case Phase::closeasync_asked:
      return now == Phase::live;
    case Phase::lost:
      return now == Phase::live || now == Phase::close_asked;
    case Phase::closed:
      return now == Phase::close_asked || now == Phase::closeasync_asked;
    case Phase::ended:
      return now != Phase::ended;
  }
  return false;
}

}  // namespace

Session::Session() : process_(platform::generation()) {
  install_exit_handler();
  queue_.prepare(make_task([this] {
    enter_loop();
    carry_out_ending();
  }));
}

Session::~Session() = default;

bool Session::start_thread() {
  platform::pin_library();
  const platform::SignalsBlocked inherited_by_the_thread;
  try {
    auto self = std::static_pointer_cast<Session>(shared_from_this());
    std::thread([self = std::move(self), side = side().shared_from_this()]() mutable {
      self->run_thread();
      self.reset();
      side.reset();
    }).detach();
    return true;
  } catch (const std::exception&) {  // no thread, or no memory for one
    enter(Phase::ended);
    return false;
  }
}

void Session::run_thread() {
  adopt_this_thread();
  platform::name_this_thread("tolk-loop");
  const LoopThreadScope runs_a_loop;
  guarded([this] {
    enter_loop();
    body();
  });
  finish_loop();
}

void Session::adopt_this_thread() { owner_thread_ = std::this_thread::get_id(); }

// The system may give the id to another thread.
void Session::leave_thread() { owner_thread_ = std::thread::id(); }

bool Session::on_a_loop_thread() { return loops_on_this_thread > 0; }

bool Session::of_this_process() const { return process_ == platform::generation(); }

bool Session::enter(Phase next) {
  TOLK_PAUSE_AT_PHASE(kind(), "before", next);
  {
    const std::lock_guard<std::mutex> lock(phase_mutex_);
    if (!may_follow(phase_, next)) return false;
    phase_ = next;
    phase_changed_.notify_all();
  }
  TOLK_PAUSE_AT_PHASE(kind(), "after", next);
  return true;
}

void Session::wait_until_decided() {
  if (on_own_thread() || !of_this_process()) return;
  std::unique_lock<std::mutex> lock(phase_mutex_);
  phase_changed_.wait(lock, [this] { return phase_ != Phase::starting; });
}

void Session::wait_until_ended() {
  if (on_own_thread() || !of_this_process()) return;
  std::unique_lock<std::mutex> lock(phase_mutex_);
  phase_changed_.wait(lock, [this] { return phase_ == Phase::ended; });
}

bool Session::wait_until_ended(std::chrono::milliseconds limit) {
  if (on_own_thread() || !of_this_process()) return false;
  std::unique_lock<std::mutex> lock(phase_mutex_);
  return phase_changed_.wait_for(lock, limit, [this] { return phase_ == Phase::ended; });
}

bool Session::post(std::unique_ptr<Task> task) {
  if (of_this_process()) return queue_.post(std::move(task));
  task->refuse();
  return false;
}

void Session::wake_for_end() {
  const Phase now = phase();
  if (now == Phase::starting || now == Phase::live) return;  // nothing was asked for
  if (of_this_process()) queue_.post_prepared();
}

void Session::check_loop_thread() const { assert(on_own_thread()); }

bool Session::takes_messages() const {
  const Phase now = phase();
  return now == Phase::live || now == Phase::close_asked || now == Phase::closeasync_asked;
}

int Session::open_loop() {
  check_loop_thread();
  const int status = uv_loop_init(&loop_);
  loop_open_ = status == 0;
  return status;
}

int Session::open_queue() {
  const int status = uv_async_init(&loop_, &wake_up_, async_sendmsg);
  if (status != 0) return status;
  wake_up_.data = this;
  queue_.open(&wake_up_);
  return 0;
}

void Session::begin_work(std::unique_ptr<WorkItem> call) { work_.begin(&loop_, std::move(call)); }

// It has only to end the wait: the loop thread drains the queue after each.
void Session::async_sendmsg(uv_async_t* wake_up) {
  static_cast<Session*>(wake_up->data)->check_loop_thread();
}

bool Session::run_loop() {
  check_loop_thread();
  if (std::exchange(loop_ran_, true)) return false;
  const LoopThreadScope runs_a_loop;
  queue_.stay_awake();
  uv_update_time(&loop_);  // for the timers that the first tasks start
  turn_until_stopped();
  return true;
}

void Session::turn_until_stopped() {
  work_off();
  while (!stopped_ && uv_loop_alive(&loop_) != 0) {
    wait_for_events();
    work_off();
  }
}

void Session::wait_for_events() {
  const Instant now = instant_now();
  const bool polls = quiet_times_.pays(now) && now - quiet_since_ < kStayAwake;
  if (polls) let_others_run();
  if (polls || !queue_.fall_asleep()) {
    uv_run(&loop_, UV_RUN_NOWAIT);
    return;
  }
  TOLK_PAUSE_POINT("loop.falls_asleep");
  uv_run(&loop_, UV_RUN_ONCE);
  queue_.stay_awake();
}

void Session::work_off() {
  const bool ran_tasks = queue_.drain();
  if (!std::exchange(heard_, false) && !ran_tasks) return;
  const Instant now = instant_now();
  quiet_times_.waited(now - quiet_since_, now);
  quiet_since_ = now;
}

void Session::stop_loop() { stopped_ = true; }

}  // namespace tolk
