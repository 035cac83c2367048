#include "transport/work_item.h"

#include <cstdint>
#include <cstdlib>
#include <stdexcept>

#include "platform/process.h"
#include "transport/handler_scope.h"
#include "transport/invoke_guarded.h"
#include "transport/thread_safety.h"
#include "transport/wait_list.h"

namespace tolk {
namespace {

// Whether libuv's workers can still be given work. When the process exits, libuv ends them and
// destroys the lock of their queue, while loop threads may still be reading calls: whoever touched
// that lock then would abort the process.
class Workers {
 public:
  bool take(uv_loop_t* loop, uv_work_t* work, uv_work_cb run, uv_after_work_cb end) {
    const MutexLock lock(mutex_);
    return open_ && uv_queue_work(loop, work, run, end) == 0;
  }
  void close() {
    const MutexLock lock(mutex_);
    open_ = false;
  }

 private:
  Mutex mutex_;
  bool open_ TOLK_GUARDED_BY(mutex_) = true;
};

constinit Workers workers;

// Exit handlers run before the end of any library, in whatever order those are linked. libuv then
// waits for its workers: none may be left waiting for an answer. Where the workers have gone
// without an end of their own there is nothing to do, and a lock may be one that they took along.
void close_workers_at_exit() {
  static const std::uint32_t made_in = platform::generation();
  [[maybe_unused]] static const int registered = std::atexit([] {
    if (platform::generation() != made_in) return;
    workers.close();
    note_process_exit();
    client_waits().wake_handlers();
    server_waits().wake_handlers();
  });
}

}  // namespace

void WorkItem::begin(uv_loop_t* loop, std::unique_ptr<WorkItem> item) {
  close_workers_at_exit();
  WorkItem* const raw = item.get();
  raw->work_.data = raw;
  if (workers.take(loop, &raw->work_, run_task, task_end)) {
    item.release();  // task_end's
  } else if (!process_exits()) {
    throw std::runtime_error("no worker");
  }
}

void WorkItem::run_task(uv_work_t* work) {
  auto* const item = static_cast<WorkItem*>(work->data);
  const HandlerScope in_handler;
  if (process_exits()) return;
  invoke_guarded([&] { item->run(); }, [&](const char*) { item->failed_ = true; });
}

void WorkItem::task_end(uv_work_t* work, int) {
  const std::unique_ptr<WorkItem> item(static_cast<WorkItem*>(work->data));
  const auto note_failure = [&](const char*) { item->failed_ = true; };
  if (!item->failed_) invoke_guarded([&] { item->end(); }, note_failure);
  if (item->failed_) invoke_guarded([&] { item->fail(); });
}

}  // namespace tolk
