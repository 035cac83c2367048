#include "tests/seam/faults.h"

#include <atomic>
#include <cstring>

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
constinit std::atomic<const char*> next_to_fail{nullptr};
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

bool Faults::will_go_on() { return plan.mode == Mode::from_then_on; }

bool Faults::of_calls() { return plan.chance == Chance::call; }

bool Faults::injected() { return plan.met >= plan.k; }

NextFails::NextFails(const char* call) { next_to_fail = call; }

NextFails::~NextFails() { next_to_fail = nullptr; }

Exempt::Exempt() { ++exemptions; }

Exempt::~Exempt() { --exemptions; }

Subject::Subject() : before_(exemptions) { exemptions = 0; }

Subject::~Subject() { exemptions = before_; }

bool is_next(const char* call) {
  const char* next = next_to_fail;
  return next != nullptr && std::strcmp(next, call) == 0 &&
         next_to_fail.compare_exchange_strong(next, nullptr);
}

bool fails_now(Chance chance, const char* call) {
  if (is_next(call)) return true;
  if (!plan.on.load(std::memory_order_relaxed) || exemptions > 0 || plan.chance != chance) {
    return false;
  }
  const int number = ++plan.met;
  return plan.mode == Mode::once ? number == plan.k : number >= plan.k;
}

}  // namespace tolk::test
