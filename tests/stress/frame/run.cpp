#include "tests/stress/frame/run.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace tolk::stress {

bool is_sanitized() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  return true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
  return true;
#else
  return false;
#endif
#else
  return false;
#endif
}

bool checks_types() {
#if defined(__has_feature)
#if __has_feature(undefined_behavior_sanitizer)
  return true;
#else
  return false;
#endif
#else
  return false;
#endif
}

Random::Random(std::uint64_t seed, std::uint64_t stream) {
  std::seed_seq words{static_cast<std::uint32_t>(seed), static_cast<std::uint32_t>(seed >> 32),
                      static_cast<std::uint32_t>(stream), static_cast<std::uint32_t>(stream >> 32)};
  engine_.seed(words);
}

Run::Run(const Options& options, int row, Progress& progress)
    : options_(options), row_(row), progress_(progress) {}

int Run::rounds(int in_short_form, int in_long_form) const {
  if (options_.rounds > 0) return options_.rounds;
  if (!options_.is_short) return in_long_form;
  return is_sanitized() ? std::max(in_short_form / 3, 1) : in_short_form;
}

std::chrono::seconds Run::seconds(int in_short_form, int in_long_form) const {
  if (options_.seconds > 0) return std::chrono::seconds(options_.seconds);
  return std::chrono::seconds(options_.is_short ? in_short_form : in_long_form);
}

void Run::figure(const std::string& name, double value, const std::string& unit) {
  const std::lock_guard<std::mutex> lock(mutex_);
  std::printf("  %-58s %14.10g %s\n", name.c_str(), value, unit.c_str());
  std::fflush(stdout);
  if (options_.json.empty()) return;
  std::FILE* const file = std::fopen(options_.json.c_str(), "ae");
  if (file == nullptr) return;
  std::fprintf(file,
               "{\"row\":%d,\"form\":\"%s\",\"seed\":%llu,\"figure\":\"%s\",\"value\":%.10g,"
               "\"unit\":\"%s\"}\n",
               row_, is_short() ? "short" : "long", static_cast<unsigned long long>(seed()),
               name.c_str(), value, unit.c_str());
  std::fclose(file);
}

void Run::note(const std::string& where) {
  const std::lock_guard<std::mutex> lock(mutex_);
  std::snprintf(progress_.text, sizeof progress_.text, "%s", where.c_str());
}

void Run::fail(const std::string& what) {
  constexpr int kPrinted = 20;
  if (++failures_ > kPrinted) return;
  const std::lock_guard<std::mutex> lock(mutex_);
  std::printf("  FAILED: %s (at: %s)\n", what.c_str(), progress_.text);
  std::fflush(stdout);
}

}  // namespace tolk::stress
