#include "capi/callbacks.h"

#include <utility>

#include "capi/core.h"

namespace tolk {
namespace {

// The objects in whose callbacks the calling thread is.
struct Inside {
  const Core* core;
  const Inside* outer;
};
thread_local const Inside* innermost = nullptr;

}  // namespace

class Callbacks::Scope {
 public:
  explicit Scope(const Core& core) : here_{&core, innermost} { innermost = &here_; }
  ~Scope() { innermost = here_.outer; }
  Scope(const Scope&) = delete;
  Scope& operator=(const Scope&) = delete;

 private:
  const Inside here_;
};

bool Callbacks::inside(const Core& core) {
  for (const Inside* at = innermost; at != nullptr; at = at->outer) {
    if (at->core == &core) return true;
  }
  return false;
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
    task->core_->callbacks().hand_to_others(*task);
  }

  void hold() { held_ = task_.shared_from_this(); }

 private:
  tolk_task& task_;
  std::shared_ptr<tolk_task> held_;
};

tolk_task::tolk_task(Kind kind, bool runs_inline)
    : kind_(kind), runs_inline_(runs_inline), place_(1), worker_place_(1) {
  if (runs_inline) loop_task_ = std::make_unique<OnLoop>(*this);
}

tolk_task::~tolk_task() = default;

void tolk_task::run() {
  const auto core = core_;
  if (core->callbacks().claim(*this)) core->callbacks().run_claimed(*this, false);
}

void tolk_task_run(tolk_task* task) {
  if (task == nullptr) return;
  const auto held = std::exchange(task->held_by_host_, nullptr);
  if (held) held->run();
}

namespace tolk {

Callbacks::Callbacks(Core& core, tolk_execute execute, void* context, unsigned workers)
    : core_(core),
      execute_(execute),
      context_(context),
      workers_(std::make_shared<WorkerPool>(workers)) {}

Callbacks::~Callbacks() { workers_->retire(); }

void Callbacks::dispatch(const std::shared_ptr<tolk_task>& task, When when) {
  bool ended = false;
  {
    const auto state = state_.lock();
    task->core_ = core_.shared();
    task->place_.front() = task;
    task->waiting_at_ = task->place_.begin();
    state->waiting.splice(state->waiting.end(), task->place_);
    if (task->kind_ == tolk_task::Kind::handler) ++state->handlers;
    ended = state->ended;
    if (state->ending) return changed_.notify_all();
  }
  hand_over(*task, when, ended);
}

void Callbacks::hand_over(tolk_task& task, When when, bool ended) {
  if (ended && task.kind_ == tolk_task::Kind::handler) {
    if (claim(task)) run_claimed(task, true);
    return;
  }
  if (!task.runs_inline_) return hand_to_others(task);
  if (when == When::now && core_.on_loop_thread()) return task.run();
  static_cast<tolk_task::OnLoop&>(*task.loop_task_).hold();
  core_.post_to_loop(std::move(task.loop_task_));
}

// An ended object's executor is the host's again.
void Callbacks::hand_to_others(tolk_task& task) {
  auto self = task.shared_from_this();
  if (execute_ != nullptr && !task.is_for_workers() && !state_.lock()->ended) {
    task.held_by_host_ = std::move(self);
    return execute_(context_, &task);
  }
  task.worker_place_.front() = std::move(self);
  workers_->add(task.worker_place_);
}

bool Callbacks::claim(tolk_task& task) {
  const auto state = state_.lock();
  if (task.claimed_) return false;
  claim_listed(*state, task);
  return true;
}

void Callbacks::claim_listed(State& state, tolk_task& task) {
  task.claimed_ = true;
  ++state.running;
  task.place_.splice(task.place_.end(), state.waiting, task.waiting_at_);
}

void Callbacks::run_claimed(tolk_task& task, bool drop) {
  const auto self = std::move(task.place_.front());
  {
    const Scope scope(core_);
    if (drop) {
      task.drop_claimed();
    } else {
      task.run_claimed();
    }
  }
  on_finished(task);
}

void Callbacks::on_finished(const tolk_task& task) {
  {
    const auto state = state_.lock();
    --state->running;
    if (task.kind_ == tolk_task::Kind::handler) --state->handlers;
    if (state->ended) changed_.notify_all();
  }
  core_.note_progress();
}

void Callbacks::end() {
  const bool waits = !inside(core_);
  auto state = state_.lock();
  state->ended = true;
  state->ending = waits;
  for (;;) {
    while (!state->waiting.empty()) {
      const auto task = state->waiting.front();
      claim_listed(*state, *task);
      state.unlock();
      run_claimed(*task, task->kind_ == tolk_task::Kind::handler);
      state.relock();
    }
    if (!waits || state->running == 0) break;
    state.wait(changed_, [](const State& now) { return !now.waiting.empty() || now.running == 0; });
  }
  state->ending = false;
}

}  // namespace tolk
