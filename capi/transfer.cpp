#include "capi/transfer.h"

#include <exception>
#include <utility>

#include "capi/core.h"
#include "transport/pause_point.h"

namespace tolk {

class Transfer::Step final : public tolk_task {
 public:
  explicit Step(std::shared_ptr<Transfer> transfer)
      : tolk_task(Kind::handler, false),
        is_for_workers_(!transfer->calls_host()),
        transfer_(std::move(transfer)) {}

 private:
  void run_claimed() override { std::exchange(transfer_, nullptr)->run(); }
  bool is_for_workers() const override { return is_for_workers_; }
  // The object ends.
  void drop_claimed() override { std::exchange(transfer_, nullptr)->end(); }

  const bool is_for_workers_;
  std::shared_ptr<Transfer> transfer_;
};

Transfer::Transfer(std::shared_ptr<Core> core, std::shared_ptr<Peer> peer)
    : core_(std::move(core)), peer_(std::move(peer)) {}

Transfer::~Transfer() = default;

void Transfer::schedule() {
  if (asked_.fetch_add(1) == 0) dispatch();
}

void Transfer::stop(std::shared_ptr<void> after) {
  if (const auto state = state_.lock(); after && !state->is_over) state->after = std::move(after);
  stopped_ = true;
  if (asked_.fetch_add(1) == 0) return end();
  end_waiting_step();
}

// The thread that the host's executor would run the step on may be waiting for the end.
void Transfer::end_waiting_step() {
  std::shared_ptr<Step> step;
  {
    const auto state = state_.lock();
    if (state->is_listed) step = state->step.lock();
  }
  if (step) step->run();
}

void Transfer::stop_without_memory() {
  ran_out_ = true;
  stop();
}

void Transfer::dispatch() {
  const auto self = shared_from_this();
  try {
    const auto step = std::make_shared<Step>(self);
    {
      const auto state = state_.lock();
      state->step = step;
      state->is_listed = false;
    }
    core_->callbacks().dispatch(step, Callbacks::When::later);
    note_listed(step);
  } catch (const std::exception&) {
    ran_out_ = true;
    end();
  }
}

// The step may be over by now, and another one be the latest.
void Transfer::note_listed(const std::shared_ptr<Step>& step) {
  {
    const auto state = state_.lock();
    if (state->step.lock() != step) return;
    state->is_listed = true;
  }
  if (stopped_) step->run();
}

void Transfer::run() {
  TOLK_PAUSE_POINT("transfer.before_step");
  const std::uint32_t seen = asked_;
  try {
    if (!stopped_) step();
  } catch (const std::exception&) {
    stopped_ = ran_out_ = true;
  }
  if (stopped_) return end();
  if (asked_.fetch_sub(seen) != seen) dispatch();
}

// `asked_` stays above 0.
void Transfer::end() {
  stopped_ = true;
  if (state_.lock()->is_over) return;
  TOLK_PAUSE_POINT("transfer.ending");
  release();
  std::shared_ptr<void> after;  // dropped after the lock
  const auto state = state_.lock();
  state->is_over = true;
  after = std::move(state->after);
}

}  // namespace tolk
