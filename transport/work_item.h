// One call from the peer on its way through a worker thread and back.
//
// Thread: begin and end on the loop thread, run on a worker.
// Owner: the item owns itself from begin to the end of `end`; its subclass holds references to
// what it uses.
// Failure: begin throws when the item cannot be queued. While the process exits, items are dropped
// silently. An exception out of run or end (no memory) ends there, and `fail` is called.
#pragma once

#include <uv.h>

#include <memory>

#include "transport/thread_safety.h"

namespace tolk {

class WorkItem {
 public:
  WorkItem() = default;
  virtual ~WorkItem() = default;
  WorkItem(const WorkItem&) = delete;
  WorkItem& operator=(const WorkItem&) = delete;

  static void begin(uv_loop_t* loop, std::unique_ptr<WorkItem> item);

 protected:
  virtual void run() TOLK_WORKER = 0;
  virtual void end() TOLK_LOOP = 0;
  // Last of all: run or end did not finish, so the peer has no reply.
  virtual void fail() TOLK_LOOP = 0;

 private:
  static void run_task(uv_work_t* work);
  static void task_end(uv_work_t* work, int status);

  uv_work_t work_{};
  bool failed_ = false;
};

}  // namespace tolk
