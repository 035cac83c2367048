#include "capi/deadlines.h"

#include <algorithm>
#include <utility>

namespace tolk {
int Deadlines::open(uv_loop_t* loop) {
  timer_.data = this;
  return uv_timer_init(loop, &timer_);
}

bool Deadlines::add(std::uint64_t deadline, std::uint64_t number) {
  const auto state = state_.lock();
  state->heap.emplace_back(deadline, number);
  std::push_heap(state->heap.begin(), state->heap.end(), std::greater<>());
  if (state->heap.size() >= state->compact_at) compact(*state);
  return deadline < state->armed_for && !std::exchange(state->is_asked, true);
}

// The table of calls is asked under this lock; it never asks here under its own.
void Deadlines::compact(State& state) {
  std::erase_if(state.heap, [this](const Entry& entry) { return !is_live_(entry.second); });
  std::make_heap(state.heap.begin(), state.heap.end(), std::greater<>());
  state.compact_at = std::max(kFewEntries, 2 * state.heap.size());
}

// The loop's clock counts whole milliseconds, so that the timer may be one of them early.
void Deadlines::arm() {
  if (uv_is_closing(reinterpret_cast<uv_handle_t*>(&timer_)) != 0) return;
  std::uint64_t first = 0;
  {
    const auto state = state_.lock();
    state->is_asked = false;
    state->armed_for = state->heap.empty() ? UINT64_MAX : state->heap.front().first;
    first = state->armed_for;
  }
  if (first == UINT64_MAX) return;
  const std::uint64_t now = uv_hrtime();
  const std::uint64_t left = first > now ? (first - now) / kNanosecondsPerMs + 1 : 0;
  uv_update_time(timer_.loop);
  uv_timer_start(&timer_, on_timer, left, 0);
}

std::uint64_t Deadlines::take_expired() {
  const auto state = state_.lock();
  if (state->heap.empty() || state->heap.front().first > uv_hrtime()) return 0;
  const std::uint64_t number = state->heap.front().second;
  std::pop_heap(state->heap.begin(), state->heap.end(), std::greater<>());
  state->heap.pop_back();
  return number;
}

void Deadlines::on_timer(uv_timer_t* timer) {
  enter_loop();
  auto* const self = static_cast<Deadlines*>(timer->data);
  while (const std::uint64_t number = self->take_expired()) self->expired_(number);
  self->arm();
}

}  // namespace tolk
