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

// Of the process that has installed the handler first, and last. 0: nobody has.
constinit std::atomic<std::uint64_t> first_process{0};
constinit std::atomic<std::uint64_t> last_process{0};

std::uint64_t this_process() { return std::uint64_t{platform::generation()} + 1; }

}  // namespace

HandlerScope::HandlerScope() { ++handlers_on_this_thread; }

HandlerScope::~HandlerScope() { --handlers_on_this_thread; }

bool HandlerScope::inside() { return handlers_on_this_thread > 0; }

AtProcessExit::AtProcessExit(void (*work)(), In in) noexcept
    : work_(work), in_(in), next_(first_work) {
  first_work = this;
}

void AtProcessExit::run_all(bool in_child) {
  exit_has_begun = true;
  for (const AtProcessExit* work = first_work; work != nullptr; work = work->next_) {
    if (!in_child || work->in_ == In::every_process) work->work_();
  }
}

// An exit handler runs before the end of any shared library, in whatever order those are linked.
// A forked child has a handler of its own, which runs before what the host has installed until
// then. Without sessions of its own nothing is done there: the threads are gone.
// On purpose there is no once-flag, which a fork may leave taken: two handlers do no harm.
void install_exit_handler() {
  const std::uint64_t process = this_process();
  if (last_process == process) return;
  std::atexit([] {
    if (last_process == this_process()) AtProcessExit::run_all(first_process != last_process);
  });
  std::uint64_t none = 0;
  first_process.compare_exchange_strong(none, process);
  last_process = process;
}

bool process_exits() { return exit_has_begun; }

void note_process_exit() { AtProcessExit::run_all(false); }

}  // namespace tolk
