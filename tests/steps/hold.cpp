#include "tests/steps/hold.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <string>
#include <vector>

#include "sessions/session.h"
#include "transport/pause_point.h"

namespace tolk::test {

struct Hold::State {
  const std::string point;
  bool taken = false;
  bool released = false;
};

namespace {

// Threads pass most points when nothing is held: they should not be put in order by that, and it
// may be a thread without memory.
constinit std::atomic<int> hold_count{0};

// Never destroyed: loop threads may pass points while the process ends.
struct Holds {
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::shared_ptr<Hold::State>> all;
};

Holds& holds() {
  static auto* const one = new Holds;
  return *one;
}

}  // namespace

Hold::Hold(const char* point) : state_(std::make_shared<State>(State{point})) {
  const std::lock_guard<std::mutex> lock(holds().mutex);
  holds().all.push_back(state_);
  ++hold_count;
}

Hold::~Hold() {
  release();
  const std::lock_guard<std::mutex> lock(holds().mutex);
  std::erase(holds().all, state_);
  --hold_count;
}

bool Hold::reached(Milliseconds limit) const {
  std::unique_lock<std::mutex> lock(holds().mutex);
  return holds().changed.wait_for(lock, limit, [&] { return state_->taken; });
}

void Hold::release() {
  const std::lock_guard<std::mutex> lock(holds().mutex);
  state_->released = true;
  holds().changed.notify_all();
}

}  // namespace tolk::test

void tolk::pause_point(const char* name) {
  using namespace tolk::test;
  if (hold_count.load(std::memory_order_relaxed) == 0) return;
  std::unique_lock<std::mutex> lock(holds().mutex);
  const auto at = std::find_if(holds().all.begin(), holds().all.end(), [&](const auto& state) {
    return !state->taken && state->point == name;
  });
  if (at == holds().all.end()) return;
  const std::shared_ptr<Hold::State> state = *at;
  state->taken = true;
  holds().changed.notify_all();
  holds().changed.wait(lock, [&] { return state->released; });
}

void tolk::pause_at_phase(const char* kind, const char* when, int phase) {
  constexpr std::array kNames{"starting", "live",   "close_asked", "closeasync_asked",
                              "lost",     "closed", "ended"};
  static_assert(kNames.size() == static_cast<std::size_t>(Phase::ended) + 1);
  if (test::hold_count.load(std::memory_order_relaxed) == 0) return;
  const std::string name =
      std::string(kind) + '.' + when + '.' + kNames[static_cast<std::size_t>(phase)];
  pause_point(name.c_str());
}
