// How much memory a large transfer takes at its peak, in each of the two processes, and how fast it
// is. The unit is a copy: the size of the data that travels. What the host itself holds of it (the
// source here) lies there before and is not counted; the blocks that it fills are.
#include <fmt/format.h>
#include <tolk/tolk.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "bench/large/memory.h"
#include "bench/large/server_process.h"

namespace {

using bench::ServerProcess;
using Clock = std::chrono::steady_clock;

// By requirement of the library; the rest of the tolerance is for what is no copy: the threads'
// stacks, the pieces under way, pages that the allocator keeps.
constexpr double kMostCopies = 3.0;
constexpr double kToleratedMib = 12.0;

struct Options {
  std::vector<int> mib{64, 256};
  std::vector<std::string> directions{"to_server", "to_client", "both_ways"};
  std::string transport = "pipe";
  int piece_kib = 32;
  bool check = false;
};

class Transfer {
 public:
  Transfer(IClient& client, const ServerProcess& server, std::size_t bytes)
      : client_(client), server_(server), source_(bench::sample(bytes)) {}

  // Runs one direction and prints its line. Whether both processes kept within the limit.
  bool run(const std::string& direction) {
    prepare(direction);
    const double client_before = begin(getpid());
    const double server_before = begin(server_.id());
    const Clock::time_point start = Clock::now();
    TolkParams arguments;
    if (direction != "to_client") {
      arguments.AddStream(source_.data(), static_cast<long>(source_.size()));
    }
    TolkParams* const result = client_.SendMsgEx(direction.c_str(), &arguments, 0, 0);
    const std::chrono::duration<double> seconds = Clock::now() - start;
    const double client_mib = bench::peak_mib(getpid()) - client_before;
    const double server_mib = bench::peak_mib(server_.id()) - server_before;
    check(direction, result);
    client_.ClearRetvalMem();
    fmt::print(
        "{:>6.0f} MiB {:<10} {:>7.2f} copies in the client {:>7.2f} in the server {:>8.0f} MiB/s\n",
        mib(), direction, client_mib / mib(), server_mib / mib(), mib() / seconds.count());
    return within(client_mib) && within(server_mib);
  }

 private:
  double mib() const { return static_cast<double>(source_.size()) / (1 << 20); }
  bool within(double used) const { return used <= kMostCopies * mib() + kToleratedMib; }

  static double begin(pid_t process) {
    bench::restart_peak(process);
    return bench::resident_mib(process);
  }

  // The server makes its own source before anything is measured.
  void prepare(const std::string& direction) {
    TolkParams size;
    size.AddInt(direction == "to_client" ? static_cast<int>(source_.size()) : 0);
    if (client_.SendMsg("prepare", &size, 0, 60000) == nullptr) {
      throw std::runtime_error("the server did not answer");
    }
  }

  void check(const std::string& direction, TolkParams* result) const {
    TolkValue* const value = result == nullptr ? nullptr : result->GetValue(0);
    if (value == nullptr) throw std::runtime_error("no result");
    long size = direction == "to_server" ? value->GetInt() : 0;
    const char* const bytes = direction == "to_server" ? nullptr : value->GetStream(size);
    const bool same = static_cast<std::size_t>(size) == source_.size() &&
                      (bytes == nullptr || std::memcmp(bytes, source_.data(), source_.size()) == 0);
    if (!same) throw std::runtime_error("the data did not arrive as it was sent");
  }

  IClient& client_;
  const ServerProcess& server_;
  const std::string source_;
};

bool connect(IClient& client, const Options& options, const ServerProcess& server) {
  const char* const port = server.port().c_str();
  return options.transport == "pipe" ? client.InitTolkClient(port, true)
                                     : client.InitTolkClientTcp4("127.0.0.1", port, true);
}

int measure(const Options& options) {
  const ServerProcess server(options.transport);
  IClient* const client = CreateClient();
  if (!connect(*client, options, server)) throw std::runtime_error("no connection");
  client->SetBigfileBufferSize(options.piece_kib * 1024);
  bool all_within = true;
  for (const int mib : options.mib) {
    for (const std::string& direction : options.directions) {
      Transfer transfer(*client, server, static_cast<std::size_t>(mib) << 20);
      all_within = transfer.run(direction) && all_within;
    }
  }
  DestroyClient(client);
  if (!options.check || all_within) return 0;
  fmt::print(stderr, "more than {} copies of the data were held at once\n", kMostCopies);
  return 1;
}

void describe(CLI::App& app, Options& options) {
  app.add_option("--mib", options.mib, "sizes of the data (default: 64 256)");
  app.add_option("--direction", options.directions, "only these (default: all)")
      ->check(CLI::IsMember({"to_server", "to_client", "both_ways"}));
  app.add_option("--transport", options.transport, "pipe or tcp4 (default: pipe)")
      ->check(CLI::IsMember({"pipe", "tcp4"}));
  app.add_option("--piece-kib", options.piece_kib, "piece size of the client's side (default: 32)");
  app.add_flag("--check", options.check, "fail when a process holds more than three copies");
}

}  // namespace

int main(int count, char** words) {
  if (count == 4 && std::string_view(words[1]) == bench::kServeCommand) {
    return bench::serve(words[2], words[3]);
  }
  Options options;
  CLI::App app{"Large transfers: memory and speed"};
  describe(app, options);
  CLI11_PARSE(app, count, words);
  try {
    return measure(options);
  } catch (const std::exception& error) {
    fmt::print(stderr, "{}\n", error.what());
    return 1;
  }
}
