#include "transport/work_item.h"

#include "platform/guarded.h"
#include "transport/process_exit.h"

namespace tolk {

void WorkItem::work_here() {
  const HandlerScope in_handler;
  if (process_exits()) return;
  const auto work_guarded = [this] {
    enter_worker();
    work();
  };
  guarded(work_guarded, [this](const char*) { failed_ = true; });
}

void WorkItem::run() {
  const auto note_failure = [this](const char*) { failed_ = true; };
  const auto end_guarded = [this] {
    enter_loop();
    end();
  };
  const auto fail_guarded = [this] {
    enter_loop();
    fail();
  };
  if (!failed_) guarded(end_guarded, note_failure);
  if (failed_) guarded(fail_guarded);
}

}  // namespace tolk
