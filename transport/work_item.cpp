#include "transport/work_item.h"

#include <stdexcept>

#include "platform/guarded.h"
#include "transport/process_exit.h"

namespace tolk {
namespace {

// Whether libuv's workers still take work. When the process exits, libuv ends them and destroys the
// lock of their queue while loop threads may still read calls: touching that lock aborts the
// process.
class Workers {
 public:
  bool enqueue(uv_loop_t* loop, uv_work_t* work, uv_work_cb run, uv_after_work_cb end) {
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
const AtProcessExit close_workers([] { workers.close(); });

}  // namespace

void WorkItem::begin(uv_loop_t* loop, std::unique_ptr<WorkItem> item) {
  WorkItem* const raw = item.get();
  raw->work_.data = raw;
  if (workers.enqueue(loop, &raw->work_, run_task, task_end)) {
    item.release();  // task_end owns it
  } else if (!process_exits()) {
    throw std::runtime_error("no worker");
  }
}

void WorkItem::run_task(uv_work_t* work) {
  enter_worker();
  auto* const item = static_cast<WorkItem*>(work->data);
  const HandlerScope in_handler;
  if (process_exits()) return;
  const auto run = [&] {
    enter_worker();
    item->run();
  };
  guarded(run, [&](const char*) { item->failed_ = true; });
}

void WorkItem::task_end(uv_work_t* work, int) {
  const std::unique_ptr<WorkItem> item(static_cast<WorkItem*>(work->data));
  const auto note_failure = [&](const char*) { item->failed_ = true; };
  const auto end = [&] {
    enter_loop();
    item->end();
  };
  const auto fail = [&] {
    enter_loop();
    item->fail();
  };
  if (!item->failed_) guarded(end, note_failure);
  if (item->failed_) guarded(fail);
}

}  // namespace tolk
