#include "capi/callbacks.h"

#include <utility>

#include "capi/core.h"
#include "transport/pause_point.h"
#include "transport/process_exit.h"

namespace tolk {
thread_local const Callbacks::Scope* Callbacks::Scope::innermost = nullptr;

Callbacks::Scope::Scope(const Core& core, bool is_log)
    : core_(core), is_log_(is_log), outer_(innermost) {
  innermost = this;
}

Callbacks::Scope::~Scope() { innermost = outer_; }

Callbacks::Telling::Telling(Callbacks& callbacks) {
  const auto state = callbacks.state_.lock();
  if (state->is_silent) return;
  ++state->lines;
  callbacks_ = &callbacks;
}

Callbacks::Telling::~Telling() {
  if (callbacks_ == nullptr) return;
  const auto state = callbacks_->state_.lock();
  --state->lines;
  if (state->is_silent) callbacks_->changed_.notify_all();
}

bool Callbacks::inside(const Core& core) {
  for (const Scope* at = Scope::innermost; at != nullptr; at = at->outer_) {
    if (&at->core_ == &core) return true;
  }
  return false;
}

bool Callbacks::inside_log(const Core& core) {
  for (const Scope* at = Scope::innermost; at != nullptr; at = at->outer_) {
    if (&at->core_ == &core && at->is_log_) return true;
  }
  return false;
}

void Callbacks::HandlerCount::end() {
  Callbacks* const callbacks = std::exchange(callbacks_, nullptr);
  if (callbacks == nullptr) return;
  --callbacks->handlers_;
  callbacks->core_.note_progress();
}

}  // namespace tolk

using tolk::Callbacks;

// Brings an inline task to the loop thread. A loop that has ended leaves it to others.
class tolk_task::OnLoop final : public tolk::Task {
 public:
  explicit OnLoop(tolk_task& task) : task_(task) {}

  void run() TOLK_LOOP override { std::exchange(held_, nullptr)->run(); }
  void refuse() override {
    const auto task = std::exchange(held_, nullptr);
    task->core_->callbacks().hand_to_others(task, Callbacks::When::later);
  }

  void hold() { held_ = task_.shared_from_this(); }

 private:
  tolk_task& task_;
  std::shared_ptr<tolk_task> held_;
};

tolk_task::tolk_task(Kind kind, bool runs_inline, std::shared_ptr<tolk::Core> core)
    : kind_(kind), runs_inline_(runs_inline), core_(std::move(core)) {
  if (runs_inline) loop_task_ = std::make_unique<OnLoop>(*this);
}

tolk_task::~tolk_task() {
  if (expected_by_ != nullptr) expected_by_->count_down();
}

// In a process that exits, no handler begins.
void tolk_task::run() {
  const bool drop = kind_ == Kind::handler && tolk::process_exits();
  tolk::Callbacks& callbacks = core_->callbacks();
  if (callbacks.claim(*this)) callbacks.run_claimed(*this, drop);
}

void tolk_task_run(tolk_task* task) {
  if (task == nullptr || !task->core_->of_this_process()) return;
  const auto held = std::exchange(task->held_by_host_, nullptr);
  TOLK_PAUSE_POINT("task.before_run");
  if (held) held->run();
}

namespace tolk {

Callbacks::Callbacks(Core& core, tolk_execute execute, void* context, unsigned workers)
    : core_(core),
      execute_(execute),
      context_(context),
      workers_(std::make_shared<WorkerPool>(workers, [this] { on_thread_lacking(); })) {}

// After the end the loop cannot be relied on: what still comes runs on the thread that brings it.
void Callbacks::on_thread_lacking() {
  if (state_.lock()->ended) return workers_->run_here();
  core_.start_workers_soon();
}

// In a forked child the threads of the pool are gone, and may have left its lock taken.
Callbacks::~Callbacks() {
  if (core_.of_this_process()) workers_->retire();
}

void Callbacks::expect(tolk_task& task) {
  ++state_.lock()->unfinished;
  task.expected_by_ = this;
}

void Callbacks::dispatch(const std::shared_ptr<tolk_task>& task, When when) {
  bool drops = false;
  {
    const auto state = state_.lock();
    if (!task->core_) task->core_ = core_.shared();
    task->place_.task = task;
    if (std::exchange(task->expected_by_, this) == nullptr) ++state->unfinished;
    if (state->ending || !state->ended || task->kind_ != tolk_task::Kind::handler) {
      state->waiting.add(task->place_);
      if (state->ending) return changed_.notify_all();
    } else {
      drops = true;
      task->claimed_ = true;
      state->dropped.add(task->place_);
      if (std::exchange(state->dropping, true)) return;
    }
  }
  TOLK_PAUSE_POINT("callback.listed");
  if (drops) return drop_handlers();
  hand_over(task, when);
}

// The end of one handler may dispatch the next: that comes on the list, so that thousands of them
// need no deep stack.
void Callbacks::drop_handlers() {
  for (;;) {
    std::shared_ptr<tolk_task> task;
    {
      const auto state = state_.lock();
      state->dropping = !state->dropped.empty();
      if (!state->dropping) return;
      task = state->dropped.first();
      state->dropped.remove(task->place_);
    }
    run_claimed(*task, true);
  }
}

void Callbacks::hand_over(const std::shared_ptr<tolk_task>& task, When when) {
  if (!task->runs_inline_) return hand_to_others(task, when);
  if (when == When::now && core_.on_loop_thread()) {
    if (quiet_ > 0) workers_->call_threads();
    return task->run();
  }
  static_cast<tolk_task::OnLoop&>(*task->loop_task_).hold();
  core_.post_to_loop(std::move(task->loop_task_));
}

// At the end of the loop's turn, threads are called for all that came.
class Callbacks::EndOfTurn final : public Task {
 public:
  explicit EndOfTurn(Callbacks& callbacks)
      : core_(callbacks.core_.shared()), callbacks_(callbacks) {}

  void run() TOLK_LOOP override { refuse(); }
  // On the loop thread too: it posts the task, and closes the queue.
  void refuse() override {
    callbacks_.quiet_ = 0;
    callbacks_.workers_->call_threads();
  }

 private:
  const std::shared_ptr<Core> core_;
  Callbacks& callbacks_;
};

// A thread that is called at once often takes the loop's processor, for one task alone.
void Callbacks::add_quietly(TaskPlace& place) {
  if (!workers_->add_quietly(place)) return;
  if (++quiet_ == 1 && guarded_or(false, [this] {
        core_.post_to_loop(std::make_unique<EndOfTurn>(*this));
        return true;
      })) {
    return;
  }
  if (quiet_ > 1 && quiet_ < kMostQuiet) return;
  quiet_ = quiet_ > 1 ? 1 : 0;
  workers_->call_threads();
}

void Callbacks::hand_to_others(const std::shared_ptr<tolk_task>& task, When when) {
  if (execute_ != nullptr && !task->is_for_workers()) return give_to_executor(task);
  auto& place = task->queue_place();
  place.task = task;
  if (when == When::now && core_.on_loop_thread()) return add_quietly(place);
  workers_->add(place);
}

// A thread in end() takes the task itself. It returns only when nobody calls the executor: the host
// may end that afterwards.
void Callbacks::give_to_executor(const std::shared_ptr<tolk_task>& task) {
  {
    const auto state = state_.lock();
    if (state->ending || task->claimed_) return;
    ++state->unfinished;
  }
  {
    const Scope scope(core_);
    task->held_by_host_ = task;
    TOLK_PAUSE_POINT("executor.before_call");
    execute_(context_, task.get());
  }
  count_down();
}

bool Callbacks::claim(tolk_task& task) {
  const auto state = state_.lock();
  if (task.claimed_) return false;
  claim_listed(*state, task);
  return true;
}

void Callbacks::claim_listed(State& state, tolk_task& task) {
  task.claimed_ = true;
  state.waiting.remove(task.place_);
}

void Callbacks::run_claimed(tolk_task& task, bool drop) {
  const auto self = std::move(task.place_.task);
  TOLK_PAUSE_POINT("callback.claimed");
  {
    const Scope scope(core_);
    if (drop) {
      task.drop_claimed();
    } else {
      task.run_claimed();
    }
  }
  TOLK_PAUSE_POINT("callback.returned");
  task.expected_by_ = nullptr;
  count_down();
  core_.note_progress();
}

void Callbacks::count_down() {
  const auto state = state_.lock();
  --state->unfinished;
  if (state->ended) changed_.notify_all();
}

// Somebody may have taken a call off the table and not dispatched it yet, or be about to refuse
// one: so the list is looked at until nothing is unfinished.
void Callbacks::end() {
  const bool waits = !inside(core_);
  auto state = state_.lock();
  state->ended = true;
  if (waits) state->ending = true;  // a callback may free what a failed connect ends
  for (;;) {
    while (!state->waiting.empty()) {
      const auto task = state->waiting.first();
      claim_listed(*state, *task);
      state.unlock();
      run_claimed(*task, task->kind_ == tolk_task::Kind::handler);
      state.relock();
    }
    if (!waits || state->unfinished == 0) break;
    state.wait(changed_,
               [](const State& now) { return !now.waiting.empty() || now.unfinished == 0; });
  }
  if (waits) state->ending = false;
  state->is_silent = true;
  if (!inside_log(core_)) state.wait(changed_, [](const State& now) { return now.lines == 0; });
  state.unlock();
  workers_->run_here();  // has what was run here already, and would keep it
}

}  // namespace tolk
