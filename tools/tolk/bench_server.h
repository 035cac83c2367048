// The server that tolk bench starts itself: this program once more, in a process of its own.
//
// Thread: the main thread. Owner: BenchServer ends the process; so does the end of this one,
// however it comes, because the server's standard input ends with it. Failure: Failure.
#pragma once

#include <memory>
#include <string>

#include "tools/tolk/command.h"

namespace tolk::tool {

inline constexpr char kBenchMethod[] = "echo";

class BenchServer {
 public:
  // When it returns, the server listens.
  BenchServer();
  ~BenchServer();
  BenchServer(const BenchServer&) = delete;
  BenchServer& operator=(const BenchServer&) = delete;

  const std::string& address() const { return address_; }

 private:
  class Process;

  std::string address_;
  std::unique_ptr<Process> process_;
};

// The subcommand that the process runs; --help does not show it.
void add_bench_server(CLI::App& app, Options& options);

}  // namespace tolk::tool
