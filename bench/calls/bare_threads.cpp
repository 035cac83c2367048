// The floor of a call library: libuv on each side with the threads and hand-overs that calls need,
// and no values, names, limits or checks. The caller hands its frame to an event loop's thread and
// waits; the peer's loop thread hands the call to libuv's worker threads, and the worker hands the
// answer back.
//
// With "yielding" as its first argument, everything that waits polls for up to 50 µs first, and
// gives its core away in each turn: loops, callers, and work items before they end.
#include <unistd.h>

#include <cstring>
#include <deque>
#include <thread>

#include "bench/calls/contestant.h"
#include "bench/calls/frame_loop.h"

namespace bench {
namespace {

constexpr std::size_t kWorkers = 4;  // libuv's default

// The standard library's semaphores yield before they sleep, which a busy core punishes.
class Semaphore {
 public:
  Semaphore() { uv_sem_init(&semaphore_, 0); }
  ~Semaphore() { uv_sem_destroy(&semaphore_); }
  Semaphore(const Semaphore&) = delete;
  Semaphore& operator=(const Semaphore&) = delete;

  void post() { uv_sem_post(&semaphore_); }
  void wait() { uv_sem_wait(&semaphore_); }
  bool try_wait() { return uv_sem_trywait(&semaphore_) == 0; }

 private:
  uv_sem_t semaphore_;
};

class ThreadedClient final : public Client {
 public:
  ThreadedClient(const Place& place, std::size_t callers, bool yielding)
      : polling_(yielding),
        calls_(callers),
        loop_([this](FrameLoop::Connection&, const FrameHeader& header, std::string_view payload,
                     FrameLoop::Block) { take_answer(header, payload); },
              yielding),
        connection_(loop_.add(place, connect_to(place))) {
    loop_.start();
  }

  bool echo(std::size_t caller, const std::string& payload) override {
    Call& call = calls_[caller];
    return exchange(caller, FrameKind::echo, payload) && call.answer == payload;
  }

  bool bulk(std::string_view bytes) override { return exchange(0, FrameKind::bulk, bytes); }

  bool post(const std::string& payload) override {
    loop_.send(connection_, header_of(calls_.size(), FrameKind::post, payload), payload);
    return true;
  }

 private:
  struct Call {
    std::string answer;
    Semaphore answered;
  };

  static FrameHeader header_of(std::size_t caller, FrameKind kind, std::string_view payload) {
    return {static_cast<std::uint32_t>(payload.size()), kind, caller};
  }

  bool exchange(std::size_t caller, FrameKind kind, std::string_view payload) {
    loop_.send(connection_, header_of(caller, kind, payload), payload);
    wait(calls_[caller].answered);
    return true;
  }

  void wait(Semaphore& answered) {
    const Polling::Clock::time_point begin = Polling::Clock::now();
    bool is_answered = false;
    while (polling_.pays() && !is_answered && Polling::Clock::now() - begin < Polling::kWindow) {
      is_answered = answered.try_wait();
      if (!is_answered) Polling::give_way();
    }
    if (!is_answered) answered.wait();
    polling_.waited(Polling::Clock::now() - begin);
  }

  void take_answer(const FrameHeader& header, std::string_view payload) {
    if (header.token >= calls_.size()) return;  // of a post
    Call& call = calls_[header.token];
    call.answer.assign(payload);
    call.answered.post();
  }

  Polling polling_;
  std::vector<Call> calls_;
  FrameLoop loop_;
  FrameLoop::Connection& connection_;
};

struct Task {
  FrameLoop::Connection* connection = nullptr;
  FrameHeader header;
  std::string payload;
  FrameLoop::Block big;  // instead of a payload
};

Task task_of(FrameLoop::Connection& connection, const FrameHeader& header, std::string_view payload,
             FrameLoop::Block block) {
  if (payload.size() < FrameLoop::kBigBytes) return {&connection, header, std::string(payload), {}};
  if (!block) {
    block = std::make_unique_for_overwrite<char[]>(payload.size());
    payload.copy(block.get(), payload.size());
  }
  return {&connection, header, {}, std::move(block)};
}

// Runs tasks in libuv's worker threads. A work item takes tasks as long as there are any.
class Workers {
 public:
  using Run = std::function<void(Task task)>;

  Workers(bool may_linger, Run run) : polling_(may_linger), run_(std::move(run)) {}

  // On the loop thread.
  void start(uv_loop_t* loop, Task task) {
    bool needs_item = false;
    {
      const std::lock_guard<std::mutex> lock(lock_);
      tasks_.push_back(std::move(task));
      count_ = tasks_.size();
      needs_item = lingering_ < tasks_.size() && items_ < kWorkers;
      if (needs_item) ++items_;
    }
    if (needs_item) queue_item(loop);
  }

 private:
  void queue_item(uv_loop_t* loop) {
    auto* const item = new uv_work_t;
    item->data = this;
    uv_queue_work(
        loop, item, [](uv_work_t* work) { static_cast<Workers*>(work->data)->work(); },
        [](uv_work_t* work, int) { delete work; });
  }

  void work() {
    Task task;
    while (take(task)) run_(std::move(task));
  }

  // False when the work item ends: there is nothing to do, and it has lingered.
  bool take(Task& task) {
    std::unique_lock<std::mutex> lock(lock_);
    if (tasks_.empty()) linger(lock);
    if (tasks_.empty()) {
      --items_;
      return false;
    }
    if (is_idle_) polling_.waited(Polling::Clock::now() - idle_since_);
    is_idle_ = false;
    task = std::move(tasks_.front());
    tasks_.pop_front();
    count_ = tasks_.size();
    return true;
  }

  void linger(std::unique_lock<std::mutex>& lock) {
    const Polling::Clock::time_point begin = Polling::Clock::now();
    is_idle_ = true;
    idle_since_ = begin;
    ++lingering_;
    lock.unlock();
    while (count_ == 0 && polling_.pays() && Polling::Clock::now() - begin < Polling::kWindow) {
      Polling::give_way();
    }
    lock.lock();
    --lingering_;
  }

  Polling polling_;
  const Run run_;
  std::atomic<std::size_t> count_{0};
  std::mutex lock_;
  std::deque<Task> tasks_;     // under lock_
  std::size_t items_ = 0;      // under lock_
  std::size_t lingering_ = 0;  // under lock_
  bool is_idle_ = false;       // under lock_
  Polling::Clock::time_point idle_since_;
};

class ThreadedServer {
 public:
  ThreadedServer(const Place& place, Shared& shared, bool yielding)
      : shared_(shared),
        workers_(yielding, [this](Task task) { handle(std::move(task)); }),
        loop_(
            [this](FrameLoop::Connection& connection, const FrameHeader& header,
                   std::string_view payload, FrameLoop::Block block) {
              workers_.start(loop_.loop(), task_of(connection, header, payload, std::move(block)));
            },
            yielding) {
    loop_.listen(place);
    loop_.start();
  }

 private:
  void handle(Task task) {
    if (task.header.kind == FrameKind::post) ++shared_.handled;
    if (task.header.kind != FrameKind::echo) {
      task.header.payload_bytes = 0;
      task.payload.clear();
      task.big.reset();
    }
    const std::string_view answer =
        task.big ? std::string_view(task.big.get(), task.header.payload_bytes) : task.payload;
    loop_.send(*task.connection, task.header, answer, std::move(task.big));
  }

  Shared& shared_;
  Workers workers_;
  FrameLoop loop_;
};

class BareThreads final : public Contestant {
 public:
  explicit BareThreads(bool yielding) : yielding_(yielding) {}

  void serve(const Place& place, Shared& shared) override {
    const ThreadedServer server(place, shared, yielding_);
    shared.listening = true;
    for (;;) pause();
  }

  std::unique_ptr<Client> connect(const Place& place, std::size_t callers) override {
    return std::make_unique<ThreadedClient>(place, callers, yielding_);
  }

 private:
  const bool yielding_;
};

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  const bool yielding = argc > 1 && std::string_view(argv[1]) == "yielding";
  bench::BareThreads contestant(yielding);
  return bench::run_contestant(argc - yielding, argv + yielding, contestant);
}
