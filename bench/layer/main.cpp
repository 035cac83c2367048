// What a call through the C++ layer costs, beside the same call through the plain interface.
//
// Both ends are in this process, so that the processor time of a call is that of both sides. The
// two ways take turns (plain, layer, plain, layer, …): what disturbs the machine disturbs both, and
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

class Add final : public IServerMethod {
 public:
  void callback(int, TolkParams* in, TolkParams* out) override {
    const TolkValue* const a = in->GetValue(0);
    const TolkValue* const b = in->GetValue(1);
    if (a == nullptr || b == nullptr || !a->IsInt() || !b->IsInt()) return;
    out->AddInt(a->GetInt() + b->GetInt());
  }
};

class Echo final : public IServerMethod {
 public:
  void callback(int, TolkParams* in, TolkParams* out) override {
    const TolkValue* const text = in->GetValue(0);
    if (text == nullptr || !text->IsString()) return;
    const std::string copy = text->GetString();
    out->AddString(copy.c_str());
  }
};

class Plain {
 public:
  explicit Plain(int pipe) {
    char text[] = "";
    server_->log(text, 0);
    client_->log(text, 0);
    server_->method("add", new Add);
    server_->method("echo", new Echo);
    const std::string name = std::to_string(pipe);
    if (!server_->InitTolkServer(name.c_str()) || !client_->InitTolkClient(name.c_str(), false)) {
      throw std::runtime_error("no connection");
    }
  }
  ~Plain() {
    DestroyClient(client_);
    server_->close();
    DestroyServer(server_);
  }
  Plain(const Plain&) = delete;
  Plain& operator=(const Plain&) = delete;

  int add(int a, int b) {
    TolkParams arguments;
    arguments.AddInt(a);
    arguments.AddInt(b);
    return first("add", arguments)->GetInt();
  }
  std::string echo(const std::string& text) {
    TolkParams arguments;
    arguments.AddString(text.c_str());
    return first("echo", arguments)->GetString();
  }

 private:
  const TolkValue* first(const char* method, TolkParams& arguments) {
    TolkParams* const reply = client_->SendMsgFast(method, &arguments, 0, kAnswerLimitMs);
    const TolkValue* const value = reply == nullptr ? nullptr : reply->GetValue(0);
    if (value == nullptr) throw std::runtime_error("no answer");
    return value;
  }

  IServer* const server_ = CreateServer();
  IClient* const client_ = CreateClient();
};

class Layer {
 public:
  explicit Layer(int pipe) : server_({.quiet = true}), client_({.quiet = true}) {
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
  // The library's own lines don't belong between the figures.
  std::FILE* const out = fdopen(dup(STDOUT_FILENO), "w");
  if (out == nullptr || std::freopen("/dev/null", "w", stdout) == nullptr) return 1;
  constexpr int kPipes = 1'000'000'000;
  Plain plain(kPipes + 2 * getpid());
  Layer layer(kPipes + 2 * getpid() + 1);
  fmt::print(out, "processor time of a call, both sides, in us\n");
  fmt::print(out, "{:<22} {:>9} {:>9} {:>9}\n", "", "plain", "layer", "ratio");
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
  std::fclose(out);
  if (!options.check || worst <= kMostRatio) return 0;
  fmt::print(stderr, "the layer costs more than {:.0f} %\n", 100 * (kMostRatio - 1));
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  CLI::App app{"Calls through the C++ layer beside calls through the plain interface"};
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
