// What a call through the C++ layer costs, beside the same call through the C interface.
//
// Both ends are in this process, so that the processor time of a call is that of both sides. The
// two ways take turns (C, layer, C, layer, …): what disturbs the machine disturbs both, and
// the figure that counts is their ratio.
#include <fmt/format.h>
#include <sys/resource.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <exception>
#include <functional>
#include <stdexcept>
#include <string>
#include <tolk/tolk.hpp>
#include <vector>

namespace {

// By requirement: the layer's part of a call.
constexpr double kMostRatio = 1.10;
constexpr int kAnswerLimitMs = 20000;

struct Options {
  int rounds = 15;
  int calls = 4000;
  bool check = false;
};

double processor_us() {
  rusage used{};
  getrusage(RUSAGE_SELF, &used);
  const auto microseconds = [](const timeval& time) {
    return 1e6 * static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec);
  };
  return microseconds(used.ru_utime) + microseconds(used.ru_stime);
}

void add(void*, tolk_request* request) {
  const tolk_block* const in = tolk_request_arguments(request);
  tolk_block* const out = tolk_block_new();
  tolk_block_add_int(out, tolk_block_int(in, 0) + tolk_block_int(in, 1));
  tolk_request_answer(request, out);
}

// A host works with the text, so it copies it.
void echo(void*, tolk_request* request) {
  std::size_t size = 0;
  const char* const text = tolk_block_text(tolk_request_arguments(request), 0, &size);
  const std::string copy(text == nullptr ? "" : text, size);
  tolk_block* const out = tolk_block_new();
  tolk_block_add_text(out, copy.data(), copy.size());
  tolk_request_answer(request, out);
}

class Plain {
 public:
  explicit Plain(int pipe) {
    const std::string address = "pipe:" + std::to_string(pipe);
    tolk_methods_add(methods_, "add", ::add, nullptr, nullptr, nullptr);
    tolk_methods_add(methods_, "echo", ::echo, nullptr, nullptr, nullptr);
    tolk_server_options options{};
    options.size = sizeof options;
    options.methods = methods_;
    tolk_server_listen(address.c_str(), &options, &server_, nullptr);
    if (tolk_client_connect(address.c_str(), nullptr, &client_, nullptr) != TOLK_OK) {
      throw std::runtime_error("no connection");
    }
  }
  ~Plain() {
    tolk_client_free(client_);
    tolk_server_free(server_);
    tolk_methods_free(methods_);
  }
  Plain(const Plain&) = delete;
  Plain& operator=(const Plain&) = delete;

  int add(int a, int b) {
    tolk_block* const arguments = tolk_block_new();
    tolk_block_add_int(arguments, a);
    tolk_block_add_int(arguments, b);
    tolk_block* const result = called("add", arguments);
    const auto sum = static_cast<int>(tolk_block_int(result, 0));
    tolk_block_free(result);
    return sum;
  }
  std::string echo(const std::string& text) {
    tolk_block* const arguments = tolk_block_new();
    tolk_block_add_text(arguments, text.data(), text.size());
    tolk_block* const result = called("echo", arguments);
    std::size_t size = 0;
    const char* const first = tolk_block_text(result, 0, &size);
    std::string back(first == nullptr ? "" : first, size);
    tolk_block_free(result);
    return back;
  }

 private:
  tolk_block* called(const char* method, tolk_block* arguments) {
    tolk_block* result = nullptr;
    tolk_client_call(client_, method, arguments, kAnswerLimitMs, &result, nullptr);
    tolk_block_free(arguments);
    if (result == nullptr) throw std::runtime_error("no answer");
    return result;
  }

  tolk_methods* const methods_ = tolk_methods_new();
  tolk_server* server_ = nullptr;
  tolk_client* client_ = nullptr;
};

class Layer {
 public:
  explicit Layer(int pipe) {
    server_.on("add", [](int a, int b) { return a + b; });
    server_.on("echo", [](std::string text) { return text; });
    server_.listen(tolk::pipe{pipe});
    client_.connect(tolk::pipe{pipe});
  }

  int add(int a, int b) {
    return client_.call<int>("add", a, b, std::chrono::milliseconds(kAnswerLimitMs)).value();
  }
  std::string echo(const std::string& text) {
    return client_.call<std::string>("echo", text, std::chrono::milliseconds(kAnswerLimitMs))
        .value();
  }

 private:
  tolk::Server server_;
  tolk::Client client_;
};

double median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

// Processor time of one call, in µs.
double cost(int calls, const std::function<bool(int)>& call) {
  const double before = processor_us();
  for (int i = 0; i < calls; ++i) {
    if (!call(i)) throw std::runtime_error("a wrong answer");
  }
  return (processor_us() - before) / calls;
}

// The median of the rounds' ratios: each is of two turns that follow one another.
double compare(std::FILE* out, const char* title, const Options& options,
               const std::function<bool(int)>& plain, const std::function<bool(int)>& layer) {
  std::vector<double> plain_us;
  std::vector<double> layer_us;
  std::vector<double> ratios;
  cost(options.calls / 4 + 1, plain);
  cost(options.calls / 4 + 1, layer);
  for (int round = 0; round < options.rounds; ++round) {
    plain_us.push_back(cost(options.calls, plain));
    layer_us.push_back(cost(options.calls, layer));
    ratios.push_back(layer_us.back() / plain_us.back());
  }
  const double ratio = median(ratios);
  fmt::print(out, "{:<22} {:>9.2f} {:>9.2f} {:>9.3f}\n", title, median(plain_us), median(layer_us),
             ratio);
  return ratio;
}

int run(const Options& options) {
  std::FILE* const out = stdout;
  constexpr int kPipes = 1'000'000'000;
  Plain plain(kPipes + 2 * getpid());
  Layer layer(kPipes + 2 * getpid() + 1);
  fmt::print(out, "processor time of a call, both sides, in us\n");
  fmt::print(out, "{:<22} {:>9} {:>9} {:>9}\n", "", "C", "layer", "ratio");
  double worst = compare(
      out, "add(int, int)", options, [&](int i) { return plain.add(i, 1) == i + 1; },
      [&](int i) { return layer.add(i, 1) == i + 1; });
  for (const std::size_t size : {100U, 10000U}) {
    const std::string text(size, 'x');
    worst = std::max(worst, compare(
                                out, fmt::format("echo of {} bytes", size).c_str(), options,
                                [&](int) { return plain.echo(text) == text; },
                                [&](int) { return layer.echo(text) == text; }));
  }
  if (!options.check || worst <= kMostRatio) return 0;
  fmt::print(stderr, "the layer costs more than {:.0f} %\n", 100 * (kMostRatio - 1));
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  CLI::App app{"Calls through the C++ layer beside calls through the C interface"};
  app.add_option("--rounds", options.rounds, "turns of each (default 15)");
  app.add_option("--calls", options.calls, "calls of a turn (default 4000)");
  app.add_flag("--check", options.check, "fail when the layer costs more than it may");
  CLI11_PARSE(app, argc, argv);
  try {
    return run(options);
  } catch (const std::exception& error) {
    fmt::print(stderr, "{}\n", error.what());
    return 1;
  }
}
