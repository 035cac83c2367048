// The server that `tolk bench` starts itself: the same program in another process.
//
// Thread: the main thread. Owner: BenchServer ends the process. The process also ends with this
// one, however that ends, because its standard input then ends. Failure: Failure.
#pragma once

#include <CLI/CLI.hpp>
#include <memory>
#include <string>

#include "tools/tolk/command/common_options.h"

namespace tolk::tool {

inline constexpr char kBenchMethod[] = "echo";

class BenchServer {
 public:
  // Returns when the server listens.
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

// The subcommand that the other process runs; --help does not show it.
void add_bench_server(CLI::App& app, CommonOptions& options);

}  // namespace tolk::tool
