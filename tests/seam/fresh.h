// Scenarios for a process that has not used the library before: objects that the library creates at
// first use are created under failures of memory.
//
// Thread: one that is Exempt. Owner: none; after a failure objects and blocked threads are left
// behind, so the process must end. Failure: what went wrong, in words; "" when all was as
// documented.
#pragma once

#include <string>

#include "tests/e2e/support/transports.h"
#include "tests/seam/faults.h"

namespace tolk::test {

struct FaultPlan {
  Chance chance;
  Mode mode;
  int k;
};

// A client that has made no large call loses its server under failures. A call without a limit
// returns, the client goes offline, and it connects again once there is memory.
std::string lose_the_server(Transport transport, const FaultPlan& plan);

// The first sweep of a server that has only posted runs under failures. Once there is memory the
// server accepts connections, answers calls, and ends its own calls at their timeout.
std::string sweep_after_a_post(Transport transport, const FaultPlan& plan);

}  // namespace tolk::test
