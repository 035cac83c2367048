#include "transport/process_exit.h"

#include <atomic>
#include <cstdint>
#include <cstdlib>

#include "platform/process.h"

namespace tolk {
namespace {

thread_local int handlers_on_this_thread = 0;
constinit std::atomic<bool> exit_has_begun{false};
constinit const AtProcessExit* first_work = nullptr;

}  // namespace

HandlerScope::HandlerScope() { ++handlers_on_this_thread; }

HandlerScope::~HandlerScope() { --handlers_on_this_thread; }

bool HandlerScope::inside() { return handlers_on_this_thread > 0; }

AtProcessExit::AtProcessExit(void (*work)()) noexcept : work_(work), next_(first_work) {
  first_work = this;
}

// An exit handler runs before the end of any shared library, in whatever order those are linked.
// In another process generation the threads are gone and may have left locks taken: nothing is
// done.
void install_exit_handler() {
  static const std::uint32_t installed_in = platform::generation();
  [[maybe_unused]] static const int installed = std::atexit([] {
    if (platform::generation() == installed_in) note_process_exit();
  });
}

bool process_exits() { return exit_has_begun; }

void note_process_exit() {
  exit_has_begun = true;
  for (const AtProcessExit* work = first_work; work != nullptr; work = work->next_) work->work_();
}

}  // namespace tolk
