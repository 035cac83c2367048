// The role of a server that answers questions, and says what its process holds.
//
//   echo-server ADDRESS [descriptors=N] [callers=N] [seed=N]
//
// Lines that it takes: "stats" (resident KiB, descriptors, threads, clients), "settle" (see below),
// "flood COUNT BYTES", "grab" and "release" (descriptors), "stop". Callers are threads of the
// server that call "back" on clients that have said "hello".
#include <malloc.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <mutex>
#include <sstream>

#include "tests/e2e/support/handlers.h"
#include "tests/e2e/support/process_state.h"
#include "tests/stress/frame/callers.h"
#include "tests/stress/frame/process.h"
#include "tests/stress/frame/rows.h"
#include "tests/stress/frame/traffic.h"

namespace tolk::stress {
namespace {

using test::on_call;

int option(const std::vector<std::string>& arguments, const std::string& name, int otherwise) {
  for (const std::string& argument : arguments) {
    if (argument.starts_with(name + "=")) return std::atoi(argument.c_str() + name.size() + 1);
  }
  return otherwise;
}

void limit_descriptors(int count) {
  if (count == 0) return;
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = static_cast<rlim_t>(count);
  setrlimit(RLIMIT_NOFILE, &limit);
}

class EchoServer {
 public:
  explicit EchoServer(const std::vector<std::string>& arguments)
      : seed_(static_cast<std::uint64_t>(option(arguments, "seed", 1))),
        callers_(option(arguments, "callers", 0)) {
    register_handlers();
    started_ = test::start_server(server_.get(), address_of(arguments.at(0)));
  }

  bool is_started() const { return started_; }

  std::string answer_line(const std::string& line) {
    std::istringstream words(line);
    std::string command;
    words >> command;
    if (command == "settle") return settle();
    if (command == "flood") return flood(words);
    if (command == "grab") return grab();
    if (command == "release") return release();
    if (command == "stop") return stop();
    return stats();
  }

 private:
  void register_handlers() {
    server_->method(
        "echo", on_call([](int, TolkParams* in, TolkParams* out) { answer_question(in, out); }));
    server_->method("slow", on_call([](int, TolkParams* in, TolkParams* out) {
                      std::this_thread::sleep_for(Milliseconds(number_in(in) % 20));
                      answer_question(in, out);
                    }));
    server_->method("hello", on_call([this](int id, TolkParams*, TolkParams*) { add_client(id); }));
    server_->method("s_c_closed",
                    on_call([this](int id, TolkParams*, TolkParams*) { remove_client(id); }));
  }

  void add_client(int id) {
    const std::lock_guard<std::mutex> lock(mutex_);
    clients_.push_back(id);
    if (callers_ == 0 || calling_) return;
    punctuality_.sweeping_from(std::chrono::steady_clock::now());
    calling_ = std::make_unique<Callers>(callers_, seed_,
                                         [this](int, Random& random) { return call_back(random); });
  }

  void remove_client(int id) {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::erase(clients_, id);
  }

  int some_client(Random& random) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (clients_.empty()) return 0;
    return clients_[static_cast<std::size_t>(
        random.between(0, static_cast<int>(clients_.size()) - 1))];
  }

  // Every call has a distinct id, so that it cannot get the answer to another.
  bool call_back(Random& random) {
    constexpr int kClearEvery = 1000;
    const int number = ++next_number_;
    if (number % kClearEvery == 0 && callers_ == 1) server_->ClearRetvalMem();
    Question question(number);
    const int time_out_ms = random.between(50, 200);
    const auto begin = std::chrono::steady_clock::now();
    TolkParams* const reply =
        server_->SendMsg(some_client(random), "back", question.arguments(), number, time_out_ms);
    punctuality_.note(begin, time_out_ms);
    if (reply != nullptr && !question.is_answered_by(reply)) ++wrong_;
    return true;
  }

  // When each caller has returned from its call: "calls wrong late_ms"; "stuck" when one has not.
  std::string settle() {
    const Callers* calling = nullptr;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      calling = calling_.get();
    }
    if (calling == nullptr) return "0 0 0";
    if (!calling->wait_each_returned(test::kLimit)) return "stuck";
    std::ostringstream text;
    text << calling->calls() << ' ' << wrong_.exchange(0) << ' ' << punctuality_.worst_late_ms();
    return text.str();
  }

  // Posts to the client that said "hello" last.
  std::string flood(std::istringstream& words) {
    int count = 0;
    long bytes = 0;
    words >> count >> bytes;
    const std::string data(static_cast<std::size_t>(bytes), 'x');
    int id = 0;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      id = clients_.empty() ? 0 : clients_.back();
    }
    TolkParams arguments;
    arguments.AddStream(data.data(), bytes);
    for (int i = 0; i < count; ++i) server_->PostMsg(id, "back", &arguments, 7);
    return "flooded";
  }

  // Takes every descriptor that comes free for a while, also those that others are about to use
  // again, as a host's other threads may; and keeps them. By bare system calls: the thread
  // sanitizer takes a number that libuv has closed for one in use, and without descriptors it
  // cannot name the functions that a suppression would go by.
  std::string grab() {
    const Stopwatch clock;
    while (clock.elapsed() < Milliseconds(1000)) {
      const long taken = syscall(SYS_dup, the_row().descriptor());
      if (taken >= 0) grabbed_.push_back(taken);
    }
    return "grabbed " + std::to_string(grabbed_.size());
  }

  std::string stop() {
    server_.reset();
    return test::eventually([] { return test::open_loops() == 0; }) ? "stopped"
                                                                    : "its loop runs on";
  }

  std::string release() {
    for (const long taken : grabbed_) syscall(SYS_close, taken);
    grabbed_.clear();
    return "released";
  }

  std::string stats() {
    malloc_trim(0);  // what the allocator keeps for later use is not held by anything
    std::ostringstream text;
    text << test::resident_kib() << ' ' << test::open_descriptors() << ' ' << test::threads() << ' '
         << server_->GetClientCount();
    return text.str();
  }

  const std::uint64_t seed_;
  const int callers_;
  std::mutex mutex_;
  std::vector<int> clients_;
  std::atomic<int> next_number_{0};
  std::atomic<long> wrong_{0};
  Punctuality punctuality_;
  test::ServerPtr server_ = test::make_server();
  std::unique_ptr<Callers> calling_;
  bool started_ = false;
  std::vector<long> grabbed_;
};

}  // namespace

int run_echo_server(const std::vector<std::string>& arguments) {
  // A server on TCP removes a file of the current folder that is named like its port.
  if (chdir("/") != 0) return 1;
  limit_descriptors(option(arguments, "descriptors", 0));
  EchoServer server(arguments);
  the_row().tell(server.is_started() ? "ready" : "no server");
  while (const auto line = the_row().read_line(std::chrono::hours(24))) {
    the_row().tell(server.answer_line(*line));
  }
  _exit(0);
}

}  // namespace tolk::stress
