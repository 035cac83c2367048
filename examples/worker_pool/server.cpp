// Divides work among worker processes: counts the primes below LIMIT.
//
//   worker_pool_server PORT WORKERS LIMIT
//
// Here the server makes the calls. Workers connect and report. The server then gives each worker
// one job at a time. When a worker dies, another gets its job.
#include <tolk/tolk.h>

#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// A range to search, and the call id for its result. Every job has its own id, because a call
// without an answer returns the earlier result of its id.
struct Job {
  int from;
  int to;
  int call_id;
};

class Jobs {
 public:
  explicit Jobs(int limit) {
    const int size = 10000;
    for (int from = 0; from < limit; from += size) {
      jobs_.push_back({from, from + size < limit ? from + size : limit, ++open_});
    }
  }

  // The next job; false when all are done. Waits while another thread may still return its job.
  bool take(Job& job) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return !jobs_.empty() || open_ == 0; });
    if (jobs_.empty()) return false;
    job = jobs_.front();
    jobs_.pop_front();
    return true;
  }
  void give_back(const Job& job) {
    const std::lock_guard<std::mutex> lock(mutex_);
    jobs_.push_back(job);
    changed_.notify_all();
  }
  void finish(int found) {
    const std::lock_guard<std::mutex> lock(mutex_);
    found_ += found;
    --open_;
    changed_.notify_all();
  }
  int found() const { return found_; }
  bool all_done() const { return open_ == 0; }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Job> jobs_;
  int open_ = 0;
  int found_ = 0;
};

// The ids of the workers that have reported.
struct Report : IServerMethod {
  void callback(int id, TolkParams*, TolkParams* out) override {
    const std::lock_guard<std::mutex> lock(mutex);
    ids.push_back(id);
    came.notify_all();
    out->AddBool(true);
  }
  std::vector<int> wait_for(std::size_t count) {
    std::unique_lock<std::mutex> lock(mutex);
    came.wait(lock, [&] { return ids.size() >= count; });
    return ids;
  }
  std::mutex mutex;
  std::condition_variable came;
  std::vector<int> ids;
};

// One thread for each worker. It ends when the work is done or its worker is gone.
void keep_busy(IServer* server, int worker, Jobs& jobs) {
  const int time_out_ms = 2000;
  for (Job job{}; jobs.take(job);) {
    TolkParams range;
    range.AddInt(job.from);
    range.AddInt(job.to);
    TolkParams* reply = server->SendMsg(worker, "count primes", &range, job.call_id, time_out_ms);
    const TolkValue* found = reply ? reply->GetValue(0) : nullptr;
    if (!found || !found->IsInt()) return jobs.give_back(job);
    jobs.finish(found->GetInt());
  }
}

int main(int argc, char** argv) {
  const std::size_t workers = argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 2;
  Jobs jobs(argc > 3 ? std::atoi(argv[3]) : 1000000);
  static Report report;
  IServer* server = CreateServer();
  server->SetCustomReleaseEvent();  // the program keeps its handler
  server->method("report", &report);
  if (!server->InitTolkServer(argc > 1 ? argv[1] : "4003")) return 1;
  std::cout << "waiting for workers" << std::endl;

  std::vector<std::thread> threads;
  for (const int worker : report.wait_for(workers)) {
    threads.emplace_back([server, worker, &jobs] { keep_busy(server, worker, jobs); });
  }
  for (std::thread& thread : threads) thread.join();
  if (jobs.all_done()) {
    std::cout << "primes: " << jobs.found() << std::endl;
  } else {
    std::cout << "all workers are gone" << std::endl;
  }
  DestroyServer(server);  // the workers see their connections end
  return jobs.all_done() ? 0 : 1;
}
