// Clients and servers of the C interface under stress: what each callback and each context that
// was given to them has come to.
//
// Thread: any. Owner: whoever waits for the counts outlives the callbacks.
#pragma once

#include <tolk/c.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include "tests/e2e/support/transports.h"
#include "tests/stress/frame/run.h"

namespace tolk::stress {

// A block with one number.
tolk_block* number_block(int number);
// As the C interface writes it.
std::string c_address_of(const test::Address& address);

// Keeps what the library may not use a second time until the process ends, so that such a use is
// seen. It stays reachable: the leak sanitizer does not count it.
template <class T>
T* kept(std::unique_ptr<T> made) {
  static std::mutex mutex;
  static auto& all = *new std::deque<std::unique_ptr<T>>;
  const std::lock_guard<std::mutex> lock(mutex);
  return all.emplace_back(std::move(made)).get();
}

// What was given to the library, and what it has given back.
struct Counts {
  std::atomic<long> contexts{0};
  std::atomic<long> contexts_freed{0};
  std::atomic<long> started{0};
  std::atomic<long> done{0};
  std::atomic<long> done_twice{0};
  std::atomic<long> wrong{0};
  std::atomic<const char*> first_wrong{""};
  // `what` is a literal.
  void note_wrong(const char* what) {
    if (++wrong == 1) first_wrong = what;
  }
  std::atomic<long> connected{0};
  std::atomic<long> gone{0};
};

// The context of a method or an object; it is freed once.
struct CountedContext {
  Counts* counts = nullptr;
  class Answerer* answerer = nullptr;
  std::atomic<bool> freed{false};

  static CountedContext* make(Counts& counts, Answerer* answerer = nullptr);
  static void release(void* context);
};

// Ends requests on a thread of its own, some time after their handlers.
class Answerer {
 public:
  explicit Answerer(Random random);
  ~Answerer();  // the rest of them at once
  Answerer(const Answerer&) = delete;
  Answerer& operator=(const Answerer&) = delete;

  void take(tolk_request* request);
  // Of two callers, which say which they are: requests of "keep" that have come, so that their
  // calls are under way.
  std::array<std::atomic<int>, 2> kept{};

 private:
  void run();

  Random random_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<tolk_request*> requests_;
  bool ends_ = false;
  std::thread thread_;
};

// echo, inline, ordered, later, keep and drop, each with a context.
tolk_methods* stressed_methods(Counts& counts, Answerer& answerer);

tolk_client* stressed_client(const std::string& address, tolk_methods* methods, Counts& counts);
tolk_server* stressed_server(const std::string& address, tolk_methods* methods, Counts& counts);

// One random operation of a client: a call, a start, a cancel, a wait, a post.
void one_operation(tolk_client* client, Counts& counts, Random& random);
// Starts a call whose outcome is counted; more than once is noted.
std::uint64_t start_counted(tolk_client* client, const char* method, unsigned flags, int limit_ms,
                            Counts& counts);

}  // namespace tolk::stress
