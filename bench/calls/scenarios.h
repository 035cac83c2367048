// What is measured: each scenario is a handful of contestants that do the same work over the same
// kind of socket, and take turns.
//
// Thread: one at a time. Failure: std::exception when a peer can't be started or reached.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "bench/calls/measure.h"

namespace bench {

struct Plan {
  std::vector<Transport> transports = {Transport::pipe, Transport::tcp4, Transport::tcp6};
  std::string only;  // scenarios whose title has this in it
  std::size_t rounds = 5;
  std::chrono::milliseconds turn{300};
  std::chrono::milliseconds warm_up{50};
  std::size_t posts = 1000;
  std::size_t large_bytes = std::size_t{8} << 20;
};

// A few seconds for everything.
Plan quick_plan();

struct Line {
  std::string contestant;
  bool is_baseline = false;
  std::vector<Sample> runs;  // one a round
};

struct Result {
  Transport transport = Transport::pipe;
  std::string title;
  double bytes_each = 0;  // payload of a call whose throughput matters, else 0
  std::vector<Line> lines;
};

// Runs everything; `done` gets each result as soon as it is there.
void run_scenarios(const Plan& plan, const std::function<void(const Result&)>& done);

}  // namespace bench
