// What every contestant's main function does: makes the processes of a measurement, before anything
// else has made a thread, and prints the figures.
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <functional>
#include <new>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <thread>

#include "bench/calls/measure.h"

namespace bench {
namespace {

constexpr unsigned kWatchdogS = 30;
constexpr std::chrono::milliseconds kStartLimit{20000};
constexpr std::chrono::milliseconds kEndLimit{3000};
constexpr rlim_t kDescriptors = 20000;

using Measure = Figures (*)(const Setup&);
const std::map<std::string, Measure> kMeasures = {
    {"echo", measure_echo},     {"posts", measure_posts}, {"bulk", measure_bulk},
    {"memory", measure_memory}, {"rest", measure_rest},   {"connect", measure_connect}};

struct Options {
  std::string measure;
  std::string transport = "pipe";
  unsigned turn_ms = 300;
  unsigned pause_us = 0;
  std::size_t idle = 0;
  unsigned busy = 0;
};

void describe(CLI::App& app, Options& options, Setup& setup) {
  app.add_option("measure", options.measure, "echo, posts, bulk, memory, rest or connect")
      ->required()
      ->check(CLI::IsMember(kMeasures));
  app.add_option("--transport", options.transport, "pipe (default), tcp4 or tcp6")
      ->check(CLI::IsMember({"pipe", "tcp4", "tcp6"}));
  app.add_option("--turn-ms", options.turn_ms, "how long (default 300)");
  app.add_option("--callers", setup.callers, "threads that share a client (default 1)");
  app.add_option("--clients", setup.clients, "clients (default 1)");
  app.add_option("--payload", setup.payload_bytes, "bytes of an echo or a post (default 64)");
  app.add_option("--pause-us", options.pause_us, "before each call (default 0)");
  app.add_option("--bytes", setup.bytes, "of a bulk transfer (default 64 MiB)");
  app.add_option("--piece", setup.piece_bytes, "bulk: bytes of a piece (default: one call)");
  app.add_option("--idle", options.idle, "echo: again, with so many idle connections");
  app.add_option("--busy", options.busy, "processes that take all the time they get");
}

// A child that ends with this process, at the latest.
pid_t start_child(const std::function<void()>& function) {
  const pid_t child = fork();
  if (child < 0) throw std::runtime_error("no process");
  if (child != 0) return child;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  alarm(kWatchdogS);
  try {
    function();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    _exit(1);
  }
  _exit(0);
}

// The children of one measurement: told to end in the end, and killed if that does not help.
class Children {
 public:
  Children() = default;
  Children(const Children&) = delete;
  Children& operator=(const Children&) = delete;
  ~Children() {
    for (const pid_t child : children_) kill(child, SIGTERM);
    const auto limit = std::chrono::steady_clock::now() + kEndLimit;
    for (const pid_t child : children_) {
      while (waitpid(child, nullptr, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > limit) kill(child, SIGKILL);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    }
  }

  pid_t add(pid_t child) { return children_.emplace_back(child); }

 private:
  std::vector<pid_t> children_;
};

class TemporaryFolder {
 public:
  TemporaryFolder() {
    path_ = (std::filesystem::temp_directory_path() / "bench.XXXXXX").string();
    if (mkdtemp(path_.data()) == nullptr) throw std::runtime_error("no temporary folder");
  }
  ~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

Shared& shared_memory() {
  void* const memory =
      mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) throw std::bad_alloc();
  return *new (memory) Shared;
}

[[noreturn]] void sleep_until_ended() {
  for (;;) pause();
}

void keep_idle_connections(const Setup& setup, std::size_t count) {
  while (!setup.shared.idle_wanted) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  const std::vector<Socket> held = setup.contestant.idle_connections(setup.place, count);
  setup.shared.idle_open = true;
  sleep_until_ended();
}

[[noreturn]] void use_a_core() {
  for (std::atomic<unsigned> spins = 0;;) ++spins;
}

void wait_until_listening(const Setup& setup) {
  const auto limit = std::chrono::steady_clock::now() + kStartLimit;
  while (!setup.shared.listening) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    siginfo_t ended{};
    waitid(P_PID, static_cast<id_t>(setup.server), &ended, WEXITED | WNOHANG | WNOWAIT);
    if (ended.si_pid != 0 || std::chrono::steady_clock::now() > limit) {
      throw std::runtime_error("the server did not start");
    }
  }
}

Figures measure(const Options& options, Setup& setup) {
  Children children;
  setup.processes = {getpid()};
  for (const pid_t daemon : setup.contestant.start_daemon(setup.place)) {
    setup.processes.push_back(children.add(daemon));
  }
  setup.server =
      children.add(start_child([&] { setup.contestant.serve(setup.place, setup.shared); }));
  setup.processes.push_back(setup.server);
  setup.idle = options.idle != 0;
  if (setup.idle) children.add(start_child([&] { keep_idle_connections(setup, options.idle); }));
  wait_until_listening(setup);
  for (unsigned i = 0; i < options.busy; ++i) children.add(start_child(use_a_core));
  return kMeasures.at(options.measure)(setup);
}

// Contestants have lines of their own on standard output: they go nowhere.
std::FILE* take_standard_output() {
  std::FILE* const out = fdopen(dup(STDOUT_FILENO), "w");
  if (out == nullptr || std::freopen("/dev/null", "w", stdout) == nullptr) {
    throw std::runtime_error("no standard output");
  }
  return out;
}

void prepare_process() {
  signal(SIGPIPE, SIG_IGN);
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = std::min(kDescriptors, limit.rlim_max);
  setrlimit(RLIMIT_NOFILE, &limit);
  alarm(kWatchdogS);
}

}  // namespace

int run_contestant(int argc, char** argv, Contestant& contestant) {
  Options options;
  Setup setup(contestant, shared_memory());
  CLI::App app("One contestant, one measurement: one line of JSON.");
  describe(app, options, setup);
  CLI11_PARSE(app, argc, argv);
  int status = 0;
  try {
    prepare_process();
    std::FILE* const out = take_standard_output();
    const TemporaryFolder folder;
    setup.place = {transport_of(options.transport), folder.path() + "/socket",
                   static_cast<std::uint16_t>(20000 + getpid() % 12000)};
    setup.turn = std::chrono::milliseconds(options.turn_ms);
    setup.warm_up = setup.turn / 5;
    setup.pause = std::chrono::microseconds(options.pause_us);
    std::fprintf(out, "%s\n", nlohmann::json(measure(options, setup)).dump().c_str());
    std::fflush(out);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    status = 1;
  }
  _exit(status);  // threads of the contestant may still run
}

}  // namespace bench
