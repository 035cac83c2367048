#include "bench/fields/fields.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kTurns = 9;
constexpr int kFieldsEach = 10000;
constexpr int kStreamsEach = 40;
constexpr std::size_t kStreamBytes = std::size_t{1} << 20;

bool all_right = true;

// Median of the turns, in ns for one.
template <typename Function>
double time_of(int count, const Function& once) {
  std::vector<double> times;
  for (int turn = 0; turn < kTurns; ++turn) {
    const Clock::time_point begin = Clock::now();
    for (int i = 0; i < count; ++i) all_right = once() && all_right;
    times.push_back(std::chrono::duration<double, std::nano>(Clock::now() - begin).count() / count);
  }
  std::nth_element(times.begin(), times.begin() + kTurns / 2, times.end());
  return times[kTurns / 2];
}

// The lower bound: the same bytes, copied twice into new memory.
bool copy_twice(const std::string& bytes) {
  const auto first = std::make_unique_for_overwrite<char[]>(bytes.size());
  std::memcpy(first.get(), bytes.data(), bytes.size());
  const auto second = std::make_unique_for_overwrite<char[]>(bytes.size());
  std::memcpy(second.get(), first.get(), bytes.size());
  return static_cast<volatile char*>(second.get())[bytes.size() / 2] == bytes[bytes.size() / 2];
}

double megabytes_per_s(double ns) { return static_cast<double>(kStreamBytes) * 1e3 / ns; }

}  // namespace

int main() {
  const std::string stream(kStreamBytes, 's');
  const double fields_ns =
      time_of(kFieldsEach, [] { return bench::build_and_parse_fields() == bench::kFieldsSum; });
  const double stream_ns =
      time_of(kStreamsEach, [&] { return bench::build_and_parse_stream(stream) == stream.size(); });
  const double copies_ns = time_of(kStreamsEach, [&] { return copy_twice(stream); });
  std::printf("{\"fields_ns\": %.1f, \"stream_mb_s\": %.1f, \"copies_mb_s\": %.1f}\n", fields_ns,
              megabytes_per_s(stream_ns), megabytes_per_s(copies_ns));
  if (!all_right) std::fprintf(stderr, "a value was not parsed as it was built\n");
  return all_right ? 0 : 1;
}
