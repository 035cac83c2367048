#include "capi/transfer.h"

#include <exception>
#include <utility>

#include "capi/core.h"

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
  if (const auto state = after_.lock(); after && !state->is_over) state->dropped = std::move(after);
  stopped_ = true;
  if (asked_.fetch_add(1) == 0) end();
}

void Transfer::dispatch() {
  const auto self = shared_from_this();
  try {
    core_->callbacks().dispatch(std::make_shared<Step>(self), Callbacks::When::later);
  } catch (const std::exception&) {
    ran_out_ = true;
    end();
  }
}

void Transfer::run() {
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
  if (after_.lock()->is_over) return;
  release();
  std::shared_ptr<void> after;  // dropped after the lock
  const auto state = after_.lock();
  state->is_over = true;
  after = std::move(state->dropped);
}

}  // namespace tolk
