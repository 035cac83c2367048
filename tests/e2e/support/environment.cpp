// The environment of every end-to-end test: std::cout is captured, a watchdog runs, and no loop of
// the test before is left.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>

#include "tests/e2e/support/capture_buffer.h"
#include "tests/e2e/support/process_state.h"
#include "tests/e2e/support/waiting.h"

namespace tolk::test {
namespace {

constexpr std::chrono::seconds kTestLimit{50};

// Ends the process when one test takes too long: it then fails, rather than hangs.
class Watchdog {
 public:
  Watchdog() {
    std::thread([this] { watch(); }).detach();
  }

  void begin(std::string test) {
    const std::lock_guard<std::mutex> lock(mutex_);
    test_ = std::move(test);
    ++round_;
    changed_.notify_all();
  }
  void end() { begin({}); }

 private:
  void watch() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      const int round = round_;
      const auto next = [&] { return round_ != round; };
      if (test_.empty()) {
        changed_.wait(lock, next);
      } else if (!changed_.wait_for(lock, kTestLimit, next)) {
        std::fprintf(stderr, "watchdog: %s takes too long\n", test_.c_str());
        std::abort();
      }
    }
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::string test_;
  int round_ = 0;
};

class Guard final : public testing::EmptyTestEventListener {
 private:
  void OnTestStart(const testing::TestInfo& test) override {
    // A loop of the test before may still be ending, and would print into this one.
    eventually([] { return open_loops() == 0; }, Milliseconds(3000));
    watchdog_->begin(std::string(test.test_suite_name()) + "." + test.name());
  }
  void OnTestEnd(const testing::TestInfo&) override { watchdog_->end(); }

  Watchdog* const watchdog_ = new Watchdog;  // its thread lives as long as the process
};

class Everywhere final : public testing::Environment {
 private:
  void SetUp() override {
    // The first call of a process puts the standard buffers back in place; so it comes before ours.
    std::ios_base::sync_with_stdio(false);
    std::cout.rdbuf(&CaptureBuffer::instance());
    if (guarded_) return;  // with --gtest_repeat this runs once a round
    guarded_ = true;
    testing::UnitTest::GetInstance()->listeners().Append(new Guard);
  }

  bool guarded_ = false;
};

[[maybe_unused]] const testing::Environment* const installed =
    testing::AddGlobalTestEnvironment(new Everywhere);

}  // namespace
}  // namespace tolk::test
