#include "transport/loop_session.h"

#include <cassert>
#include <exception>

#include "platform/process.h"
#include "platform/thread.h"
#include "transport/invoke_guarded.h"

namespace tolk {
namespace {

void async_sendmsg(uv_async_t* wake_up) { static_cast<HandOff*>(wake_up->data)->drain(); }

void close_if_open(uv_handle_t* handle, void*) {
  if (!uv_is_closing(handle)) uv_close(handle, nullptr);
}

thread_local int loops_on_this_thread = 0;

void note_handle(uv_handle_t*, void* found) { *static_cast<bool*>(found) = true; }

}  // namespace

LoopSession::LoopSession() : process_(platform::generation()) {}

LoopSession::~LoopSession() = default;

bool LoopSession::start_thread(std::shared_ptr<void> keep_alive, std::function<void()> body) {
  platform::pin_library();
  const platform::SignalsBlocked inherited_by_the_thread;
  try {
    std::thread([self = shared_from_this(), core = std::move(keep_alive),
                 run = std::move(body)]() mutable {
      self->adopt_this_thread();
      platform::name_this_thread("tolk-loop");
      const LoopThreadScope runs_a_loop;
      invoke_guarded(run);
      self->abandon_loop();  // nothing is left to do, unless there was no memory to go on
      self->reach(Milestone::ended);
      self->leave_thread();
      run = nullptr;
      self.reset();
      core.reset();
    }).detach();
    return true;
  } catch (const std::exception&) {  // no thread, or no memory for one
    reach(Milestone::ended);
    return false;
  }
}

void LoopSession::adopt_this_thread() { owner_ = std::this_thread::get_id(); }

// The system may give the id to another thread.
void LoopSession::leave_thread() { owner_ = std::thread::id(); }

bool LoopSession::on_a_loop_thread() { return loops_on_this_thread > 0; }

LoopThreadScope::LoopThreadScope() { ++loops_on_this_thread; }

LoopThreadScope::~LoopThreadScope() { --loops_on_this_thread; }

bool LoopSession::of_this_process() const { return process_ == platform::generation(); }

bool LoopSession::post(std::unique_ptr<LoopTask> task) {
  if (of_this_process()) return hand_off_.post(std::move(task));
  task->refuse();
  return false;
}

void LoopSession::post_ready() {
  if (of_this_process()) hand_off_.post_ready();
}

void LoopSession::reach(Milestone milestone) {
  auto at = milestone_.lock();
  if (*at < milestone) *at = milestone;
  reached_.notify_all();
}

void LoopSession::wait_for(Milestone milestone) {
  if (on_own_thread() || !of_this_process()) return;
  milestone_.lock().wait(reached_, [&](Milestone at) { return at >= milestone; });
}

bool LoopSession::wait_for(Milestone milestone, std::chrono::milliseconds limit) {
  if (on_own_thread() || !of_this_process()) return false;
  return milestone_.lock().wait_for(reached_, limit, [&](Milestone at) { return at >= milestone; });
}

void LoopSession::check_loop_thread() const { assert(on_own_thread()); }

int LoopSession::open_loop() {
  check_loop_thread();
  const int status = uv_loop_init(&loop_);
  loop_open_ = status == 0;
  return status;
}

int LoopSession::open_hand_off() {
  check_loop_thread();
  const int status = uv_async_init(&loop_, &wake_up_, async_sendmsg);
  if (status != 0) return status;
  wake_up_.data = &hand_off_;
  hand_off_.open(&wake_up_);
  return 0;
}

void LoopSession::run_loop() {
  check_loop_thread();
  uv_run(&loop_, UV_RUN_DEFAULT);
}

void LoopSession::begin_stop() {
  check_loop_thread();
  stopping_ = true;
  hand_off_.close();
}

void LoopSession::close_all_handles() {
  check_loop_thread();
  if (loop_open_) uv_walk(&loop_, close_if_open, nullptr);
}

void LoopSession::stop_loop() {
  check_loop_thread();
  uv_stop(&loop_);
}

void LoopSession::close_handle(uv_handle_t* handle) { close_if_open(handle, nullptr); }

bool LoopSession::has_handles() {
  bool found = false;
  if (loop_open_) uv_walk(&loop_, note_handle, &found);
  return found;
}

void LoopSession::run_until_handles_closed() {
  check_loop_thread();
  while (has_handles()) uv_run(&loop_, UV_RUN_ONCE);
}

void LoopSession::abandon_loop() {
  adopt_this_thread();
  if (loop_open_) {
    begin_stop();
    close_all_handles();
    run_until_handles_closed();
    linger_and_close_loop();
  }
  leave_thread();
}

void LoopSession::linger_and_close_loop() {
  if (!loop_open_) return;
  uv_run(&loop_, UV_RUN_DEFAULT);
  uv_loop_close(&loop_);
  loop_open_ = false;
}

}  // namespace tolk
