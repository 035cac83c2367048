#include <condition_variable>
#include <deque>
#include <iostream>
#include <mutex>
#include <tolk/tolk.hpp>

// What a user interface has: a queue of work that its thread runs.
class Window {
 public:
  // Work has to be called, which frees it, even if its client has ended.
  ~Window() {
    for (const tolk::Work& work : queue_) work();
  }
  void add(tolk::Work work) {
    const std::lock_guard lock(mutex_);
    queue_.push_back(work);
    changed_.notify_one();
  }
  void run() {
    while (!closed) {
      std::unique_lock lock(mutex_);
      changed_.wait(lock, [&] { return !queue_.empty(); });
      const tolk::Work work = queue_.front();
      queue_.pop_front();
      lock.unlock();
      work();
    }
  }
  std::string title;  // only the window's thread uses it
  bool closed = false;

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<tolk::Work> queue_;
};

int main(int argc, char** argv) {
  const tolk::Address where = argc > 1 ? argv[1] : "pipe:5000";
  tolk::Server server;
  server.on("open", [](const tolk::Caller& caller, const std::string& file) {
    caller.post("show", "title: " + file);
    caller.post("close");
  });
  server.listen(where);

  Window window;
  // Handlers, hooks and coroutines of this client run in the window's thread.
  tolk::Client client(tolk::Options{.executor = [&](tolk::Work work) { window.add(work); }});
  client.on("show", tolk::ordered, [&](const std::string& title) { window.title = title; });
  client.on("close", tolk::ordered, [&] { window.closed = true; });
  client.connect(where);
  client.post("open", "notes.txt");
  window.run();
  std::cout << window.title << "\n";
}
