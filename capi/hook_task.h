// A hook of the host that waits to be called: the function that calls it, and what it needs.
//
// Thread: any. Owner: as each task. Failure: std::bad_alloc from the making.
#pragma once

#include <utility>

#include "capi/callbacks.h"

namespace tolk {

template <class Function>
class HookTask final : public tolk_task {
 public:
  explicit HookTask(Function function)
      : tolk_task(Kind::hook, false), function_(std::move(function)) {}

 private:
  void run_claimed() override { function_(); }

  Function function_;
};

template <class Function>
std::shared_ptr<tolk_task> make_hook(Function function) {
  return std::make_shared<HookTask<Function>>(std::move(function));
}

}  // namespace tolk
