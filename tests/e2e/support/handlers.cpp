#include "tests/e2e/support/handlers.h"

#include <mutex>
#include <set>

namespace tolk::test {
namespace {

struct Living {
  std::mutex mutex;
  std::set<const void*> handlers;
};

// Never destroyed: workers may still drop handlers while the process ends.
Living& living() {
  static auto* const all = new Living;
  return *all;
}

}  // namespace

KeptReachable::KeptReachable() {
  const std::lock_guard<std::mutex> lock(living().mutex);
  living().handlers.insert(this);
}

KeptReachable::~KeptReachable() {
  const std::lock_guard<std::mutex> lock(living().mutex);
  living().handlers.erase(this);
}

}  // namespace tolk::test
