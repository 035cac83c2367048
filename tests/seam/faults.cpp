#include "tests/seam/faults.h"

#include <atomic>

namespace tolk::test {
namespace {

struct Plan {
  std::atomic<bool> on{false};
  std::atomic<Chance> chance{Chance::call};
  std::atomic<Mode> mode{Mode::once};
  std::atomic<int> k{0};
  std::atomic<int> met{0};
};

constinit Plan plan;
thread_local int exemptions = 0;

}  // namespace

Faults::Faults(Chance chance, Mode mode, int k) {
  plan.chance = chance;
  plan.mode = mode;
  plan.k = k;
  plan.met = 0;
  plan.on = true;
}

Faults::~Faults() { plan.on = false; }

int Faults::met() { return plan.met; }

bool Faults::injected() { return plan.met >= plan.k; }

Exempt::Exempt() { ++exemptions; }

Exempt::~Exempt() { --exemptions; }

Subject::Subject() : before_(exemptions) { exemptions = 0; }

Subject::~Subject() { exemptions = before_; }

bool fails_now(Chance chance) {
  if (!plan.on.load(std::memory_order_relaxed) || exemptions > 0 || plan.chance != chance) {
    return false;
  }
  const int number = ++plan.met;
  return plan.mode == Mode::once ? number == plan.k : number >= plan.k;
}

}  // namespace tolk::test
