#include "params/stdout_lock.h"

namespace tolk {
namespace {

// Never destroyed: loop threads may still write while the process ends.
union Immortal {
  Immortal() : mutex() {}
  ~Immortal() {}
  std::mutex mutex;
};

}  // namespace

std::mutex& stdout_mutex() {
  static Immortal immortal;
  return immortal.mutex;
}

}  // namespace tolk
