#include "tests/stress/frame/callers.h"

#include <algorithm>

#include "tests/stress/frame/traffic.h"

namespace tolk::stress {

void Punctuality::note(Clock::time_point begin, int time_out_ms) {
  if (time_out_ms == 0) return;
  const auto due =
      std::max(begin + Milliseconds(time_out_ms), sweeping_from_ + Milliseconds(kFirstSweepMs));
  const auto late = std::chrono::duration_cast<Milliseconds>(Clock::now() - due).count();
  int worst = worst_late_ms_;
  while (late > worst && !worst_late_ms_.compare_exchange_weak(worst, static_cast<int>(late))) {
  }
}

Callers::Callers(int count, std::uint64_t seed, const Call& call) {
  for (int i = 0; i < count; ++i) {
    auto caller = std::make_unique<Caller>();
    caller->thread = std::thread([this, i, seed, call, self = caller.get()] {
      Random random(seed, static_cast<std::uint64_t>(i));
      while (!stop_ && call(i, random)) {
        ++self->calls;
        // Callers that never pause would be a test of the machine's scheduler.
        std::this_thread::sleep_for(std::chrono::microseconds(random.between(0, 2000)));
      }
      self->ended = true;
    });
    callers_.push_back(std::move(caller));
  }
}

Callers::~Callers() {
  stop_ = true;
  for (const auto& caller : callers_) caller->thread.join();
}

bool Callers::wait_ended(Milliseconds limit) const {
  return eventually(
      [&] {
        return std::all_of(callers_.begin(), callers_.end(),
                           [](const auto& caller) { return caller->ended.load(); });
      },
      limit);
}

bool Callers::wait_each_returned(Milliseconds limit) const {
  std::vector<long> before;
  for (const auto& caller : callers_) before.push_back(caller->calls);
  return eventually(
      [&] {
        for (std::size_t i = 0; i < callers_.size(); ++i) {
          if (!callers_[i]->ended && callers_[i]->calls == before[i]) return false;
        }
        return true;
      },
      limit);
}

long Callers::calls() const {
  long all = 0;
  for (const auto& caller : callers_) all += caller->calls;
  return all;
}

}  // namespace tolk::stress
