// One call from the peer on its way through a worker thread and back.
//
// Thread: begin and end on the loop thread, run on a worker.
// Owner: the item owns itself from begin to the end of `end`; what it refers to is kept alive by
// the references that its subclass holds.
// Failure: begin throws when the item can't be queued. While the process exits none is, without a
// word. An exception out of run or end (no memory) ends there, and is told by fail.
#pragma once

#include <uv.h>

#include <memory>

namespace tolk {

class WorkItem {
 public:
  WorkItem() = default;
  virtual ~WorkItem() = default;
  WorkItem(const WorkItem&) = delete;
  WorkItem& operator=(const WorkItem&) = delete;

  static void begin(uv_loop_t* loop, std::unique_ptr<WorkItem> item);

 protected:
  virtual void run() = 0;  // worker
  virtual void end() = 0;  // loop
  // Loop, last of all: run or end was broken off, so nobody has been answered.
  virtual void fail() = 0;

 private:
  static void run_task(uv_work_t* work);
  static void task_end(uv_work_t* work, int status);

  uv_work_t work_{};
  bool failed_ = false;
};

}  // namespace tolk
