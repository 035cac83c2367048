#include "bench/calls/measure.h"

#include <algorithm>
#include <latch>
#include <thread>
#include <utility>

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;

struct Tally {
  std::vector<double> times_us;
  double wrong = 0;
};

void call_until(Contestant& contestant, std::size_t caller, Clock::time_point end, Tally& tally) {
  std::uint32_t stamp = 1;
  Clock::time_point begin = Clock::now();
  do {
    if (!contestant.exchange(caller, stamp++)) tally.wrong += 1;
    const Clock::time_point now = Clock::now();
    tally.times_us.push_back(std::chrono::duration<double, std::micro>(now - begin).count());
    begin = now;
    // Whoever has waited out a time-limit need not do so again.
  } while (begin < end && tally.wrong == 0);
}

Usage difference(const Usage& later, const Usage& earlier) {
  return {later.processor_us - earlier.processor_us, later.switches - earlier.switches};
}

}  // namespace

Sample measure(Contestant& contestant, const PeerProcess& peer, std::size_t callers,
               std::chrono::milliseconds duration) {
  std::vector<Tally> tallies(callers);
  std::vector<std::thread> threads;
  std::latch start(static_cast<std::ptrdiff_t>(callers) + 1);
  for (std::size_t i = 0; i < callers; ++i) {
    threads.emplace_back([&, i] {
      start.arrive_and_wait();
      call_until(contestant, i, Clock::now() + duration, tallies[i]);
    });
  }
  const Usage peer_before = peer.usage();
  const Usage before = usage_of_this_process();
  start.arrive_and_wait();
  const Clock::time_point begin = Clock::now();
  for (std::thread& thread : threads) thread.join();

  Sample sample;
  sample.seconds = std::chrono::duration<double>(Clock::now() - begin).count();
  sample.caller = difference(usage_of_this_process(), before);
  sample.peer = difference(peer.usage(), peer_before);
  std::vector<double> times_us;
  for (const Tally& tally : tallies) {
    times_us.insert(times_us.end(), tally.times_us.begin(), tally.times_us.end());
    sample.wrong += tally.wrong;
  }
  sample.calls = static_cast<double>(times_us.size() * contestant.calls_each());
  sample.p50_us = quantile(times_us, 0.5);
  sample.p99_us = quantile(std::move(times_us), 0.99);
  return sample;
}

double quantile(std::vector<double> values, double part) {
  if (values.empty()) return 0;
  const auto at = static_cast<std::ptrdiff_t>(part * static_cast<double>(values.size() - 1));
  std::nth_element(values.begin(), values.begin() + at, values.end());
  return values[static_cast<std::size_t>(at)];
}

}  // namespace bench
