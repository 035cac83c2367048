#include "bench/calls/bare_threads.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <semaphore>
#include <thread>
#include <utility>
#include <vector>

#include "bench/calls/frame_loop.h"

namespace bench {
namespace {

constexpr std::chrono::seconds kAnswerLimit{10};
constexpr std::size_t kWorkers = 4;

class ThreadedCalls final : public Contestant {
 public:
  ThreadedCalls(Transport transport, const std::string& name, std::size_t callers,
                std::size_t connections, std::size_t calls_each, FrameBytes bytes)
      : calls_each_(calls_each), bytes_(bytes), callers_(callers) {
    for (std::size_t i = 0; i < connections; ++i) {
      auto& loop = loops_.emplace_back(std::make_unique<FrameLoop>(
          [this](int, std::string_view payload) { take_answer(payload); }));
      connections_.push_back(loop->add(connect_to(transport, name)));
    }
  }

  std::size_t calls_each() const override { return calls_each_; }

  bool exchange(std::size_t caller, std::uint32_t stamp) override {
    Caller& own = callers_[caller];
    own.stamp = stamp;
    own.right = true;
    own.left = calls_each_;
    const Mark mark{stamp, static_cast<std::uint32_t>(caller),
                    static_cast<std::uint32_t>(bytes_.reply)};
    const std::size_t at = caller % loops_.size();
    for (std::size_t i = 0; i < calls_each_; ++i) {
      std::string frame = make_frame(bytes_.call);
      put_mark(frame, mark);
      loops_[at]->send(connections_[at], std::move(frame));
    }
    return own.answered.try_acquire_for(kAnswerLimit) && own.right;
  }

 private:
  struct Caller {
    std::uint32_t stamp = 0;
    std::size_t left = 0;
    bool right = true;
    std::binary_semaphore answered{0};
  };

  void take_answer(std::string_view payload) {
    const Mark mark = mark_of(payload);
    if (mark.caller >= callers_.size()) return;
    Caller& caller = callers_[mark.caller];
    if (payload.size() + 4 != bytes_.reply || mark.stamp != caller.stamp) caller.right = false;
    if (--caller.left == 0) caller.answered.release();
  }

  const std::size_t calls_each_;
  const FrameBytes bytes_;
  std::vector<Caller> callers_;
  std::vector<int> connections_;
  std::vector<std::unique_ptr<FrameLoop>> loops_;  // their threads end first
};

class ThreadedServer final : public PeerServer {
 public:
  explicit ThreadedServer(Transport transport)
      : loop_([this](int connection, std::string_view payload) {
          hand_to_worker({connection, std::string(payload)});
        }) {
    loop_.accept_from(listen_somewhere(transport, name_));
    for (std::size_t i = 0; i < kWorkers; ++i) workers_.emplace_back([this] { work(); });
  }

  ~ThreadedServer() override {
    {
      const std::lock_guard<std::mutex> lock(lock_);
      ending_ = true;
    }
    more_.notify_all();
    for (std::thread& worker : workers_) worker.join();
  }

  std::string name() const override { return name_; }

 private:
  struct Job {
    int connection;
    std::string payload;
  };

  void hand_to_worker(Job job) {
    {
      const std::lock_guard<std::mutex> lock(lock_);
      jobs_.push_back(std::move(job));
    }
    more_.notify_one();
  }

  void work() {
    for (;;) {
      std::unique_lock<std::mutex> lock(lock_);
      more_.wait(lock, [this] { return ending_ || !jobs_.empty(); });
      if (ending_) return;
      const Job job = std::move(jobs_.front());
      jobs_.pop_front();
      lock.unlock();
      const Mark mark = mark_of(job.payload);
      std::string reply = make_frame(mark.reply_bytes);
      put_mark(reply, mark);
      loop_.send(job.connection, std::move(reply));
    }
  }

  std::string name_;
  std::mutex lock_;
  std::condition_variable more_;
  std::deque<Job> jobs_;
  bool ending_ = false;
  std::vector<std::thread> workers_;
  FrameLoop loop_;  // its thread ends first
};

}  // namespace

std::unique_ptr<Contestant> threaded_calls(Transport transport, const std::string& name,
                                           std::size_t callers, std::size_t connections,
                                           FrameBytes bytes) {
  return std::make_unique<ThreadedCalls>(transport, name, callers, connections, 1, bytes);
}

std::unique_ptr<Contestant> threaded_posts(Transport transport, const std::string& name,
                                           std::size_t count, FrameBytes bytes) {
  return std::make_unique<ThreadedCalls>(transport, name, 1, 1, count, bytes);
}

std::unique_ptr<PeerServer> start_threaded_server(Transport transport) {
  return std::make_unique<ThreadedServer>(transport);
}

}  // namespace bench
