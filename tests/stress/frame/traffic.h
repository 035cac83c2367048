// Calls whose answers differ from one another, and what their callers saw.
//
// Thread: a Question and a Latencies belong to one thread, a Bystander to the row's.
#pragma once

#include <tolk/tolk.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <string>
#include <thread>
#include <vector>

#include "tests/e2e/support/transports.h"
#include "tests/stress/frame/run.h"

namespace tolk::stress {

inline constexpr std::array kTransports{test::Transport::pipe, test::Transport::tcp4,
                                        test::Transport::tcp6};

inline constexpr int kStepMs = 100;        // of the sweep that notices timeouts
inline constexpr int kFirstSweepMs = 500;  // after connecting, or after a server's first call

// The arguments of one call. The answer must carry the same number and bytes.
class Question {
 public:
  explicit Question(int number, std::size_t bytes = 0);

  TolkParams* arguments() { return &arguments_; }
  bool is_answered_by(TolkParams* reply) const;

 private:
  const int number_;
  const std::string text_;
  TolkParams arguments_;
};

// The answer to a Question. Other calls get no values.
void answer_question(TolkParams* in, TolkParams* out);
// The number of the question; -1 when there is none.
int number_in(TolkParams* block);

class Latencies {
 public:
  void add(double microseconds) { all_.push_back(microseconds); }
  void add_all(const Latencies& others);
  std::size_t count() const { return all_.size(); }
  double percentile_us(double percent);  // 0 when there is none

 private:
  std::vector<double> all_;
};

// A client that takes no part in the attack: its calls must be served all along.
class Bystander {
 public:
  Bystander(Run& run, const test::Address& address, int call_id);
  ~Bystander();
  Bystander(const Bystander&) = delete;
  Bystander& operator=(const Bystander&) = delete;

  // One call; false when it was not answered, or wrongly.
  bool call(Latencies* latencies = nullptr);
  // Calls every millisecond or so until `done`, at least ten times.
  Latencies call_until(const std::atomic<bool>& done);
  Latencies call_for(std::chrono::milliseconds time);
  IClient* client() { return client_.get(); }

 private:
  template <class Done>
  Latencies call_while_not(const Done& done);

  Run& run_;
  const int call_id_;
  int number_ = 0;
  test::ClientPtr client_ = test::make_client();
};

// Runs `body` on a thread until the object's end.
class Meanwhile {
 public:
  template <class Body>
  explicit Meanwhile(Body body) : thread_([this, body] { body(done_); }) {}
  ~Meanwhile() { join(); }
  Meanwhile(const Meanwhile&) = delete;
  Meanwhile& operator=(const Meanwhile&) = delete;

  void join() {
    done_ = true;
    if (thread_.joinable()) thread_.join();
  }

 private:
  std::atomic<bool> done_{false};
  std::thread thread_;
};

// `count` threads at once, each with its number; returns when all have ended.
template <class Body>
void on_threads(int count, const Body& body) {
  std::vector<std::thread> all;
  all.reserve(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) all.emplace_back([&body, i] { body(i); });
  for (std::thread& one : all) one.join();
}

}  // namespace tolk::stress
