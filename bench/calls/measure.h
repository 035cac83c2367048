// The measurements, the same for every contestant.
//
// Thread: the one that calls; `echo` makes a thread for each caller if there are several.
// Failure: std::runtime_error for a missing or wrong answer; what the contestant throws.
#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "bench/calls/contestant.h"

namespace bench {

// By the names that they have in the JSON line.
using Figures = std::map<std::string, double>;

struct Setup {
  Setup(Contestant& measured, Shared& memory) : contestant(measured), shared(memory) {}

  Contestant& contestant;
  Shared& shared;
  Place place;
  pid_t server = 0;
  std::vector<pid_t> processes;  // all whose processor time counts

  std::chrono::milliseconds turn{300};
  std::chrono::milliseconds warm_up{60};
  std::size_t callers = 1;  // of each client
  std::size_t clients = 1;
  std::size_t payload_bytes = 64;
  std::chrono::microseconds pause{0};  // before each call
  std::size_t bytes = std::size_t{64} << 20;
  std::size_t piece_bytes = 0;  // 0: all in one call
  bool idle = false;            // `echo` a second time, beside idle connections
};

// Times of a call, calls in a second, processor time of a call (of all processes).
Figures measure_echo(const Setup& setup);
// Messages from one thread, until the handler has seen all of them.
Figures measure_posts(const Setup& setup);
Figures measure_bulk(const Setup& setup);
// What a connected client that does nothing costs in the server.
Figures measure_memory(const Setup& setup);
// How often a client that does nothing and its server wake.
Figures measure_rest(const Setup& setup);
Figures measure_connect(const Setup& setup);

// The value below which `part` (0 to 1) of the values lie. 0 for none.
double quantile(std::vector<double> values, double part);

}  // namespace bench
