// The lives of clients and servers of the C interface into which failures are injected.
// Thread: one. Failure: as the world's.
#pragma once

#include <span>

#include "tests/seam/c_world.h"

namespace tolk::test {

struct CScenario {
  const char* name;
  void (*play)(CWorld& world);
  // A server and two clients are there before the failures begin.
  bool begins_up = true;
  CWorld::Executor executor = CWorld::Executor::workers;
};

std::span<const CScenario> c_scenarios();

}  // namespace tolk::test
