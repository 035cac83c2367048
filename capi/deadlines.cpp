#include "capi/deadlines.h"

namespace tolk {
namespace {

constexpr std::uint64_t kNanosecondsPerMs = 1000000;

}  // namespace

int Deadlines::open(uv_loop_t* loop) {
  timer_.data = this;
  return uv_timer_init(loop, &timer_);
}

bool Deadlines::add(std::uint64_t deadline, std::uint64_t number) {
  const auto heap = heap_.lock();
  heap->emplace(deadline, number);
  return heap->top().second == number;
}

// The loop's clock counts whole milliseconds, so that the timer may be one of them early.
void Deadlines::arm() {
  if (uv_is_closing(reinterpret_cast<uv_handle_t*>(&timer_)) != 0) return;
  std::uint64_t first = 0;
  {
    const auto heap = heap_.lock();
    if (heap->empty()) return;
    first = heap->top().first;
  }
  const std::uint64_t now = uv_hrtime();
  const std::uint64_t left = first > now ? (first - now) / kNanosecondsPerMs + 1 : 0;
  uv_update_time(timer_.loop);
  uv_timer_start(&timer_, on_timer, left, 0);
}

std::uint64_t Deadlines::take_expired() {
  const auto heap = heap_.lock();
  if (heap->empty() || heap->top().first > uv_hrtime()) return 0;
  const std::uint64_t number = heap->top().second;
  heap->pop();
  return number;
}

void Deadlines::on_timer(uv_timer_t* timer) {
  enter_loop();
  auto* const self = static_cast<Deadlines*>(timer->data);
  while (const std::uint64_t number = self->take_expired()) self->expired_(number);
  self->arm();
}

}  // namespace tolk
