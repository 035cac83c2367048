// Runs one contestant for a while and counts.
//
// Thread: one at a time; makes a thread for each caller. Failure: as PeerProcess::usage.
#pragma once

#include <chrono>
#include <cstddef>
#include <vector>

#include "bench/calls/contestant.h"
#include "bench/calls/peer_process.h"

namespace bench {

struct Sample {
  double calls = 0;
  double seconds = 0;
  double wrong = 0;   // exchanges without the right answer
  double p50_us = 0;  // of one exchange
  double p99_us = 0;
  Usage caller;  // of the whole run
  Usage peer;
};

// At least one exchange for each caller.
Sample measure(Contestant& contestant, const PeerProcess& peer, std::size_t callers,
               std::chrono::milliseconds duration);

// The value below which `part` (0 … 1) of the values lie. 0 for none.
double quantile(std::vector<double> values, double part);
inline double median(std::vector<double> values) { return quantile(std::move(values), 0.5); }

}  // namespace bench
