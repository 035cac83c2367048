// One call from the peer on its way through a worker thread and back.
//
// Thread: work on a worker; end and fail on the loop thread. A WorkQueue brings it there.
// Owner: the queue that it is in; its subclass holds references to what it uses.
// Failure: while the process exits, items are dropped silently. An exception out of work or end (no
// memory) ends there, and `fail` is called.
#pragma once

#include "transport/task_queue.h"
#include "transport/thread_safety.h"

namespace tolk {

class WorkItem : public Task {
 public:
  // What the worker does with it.
  void work_here() TOLK_WORKER;
  // What the loop thread does with it then: the last of all.
  void run() TOLK_LOOP final;

 protected:
  virtual void work() TOLK_WORKER = 0;
  virtual void end() TOLK_LOOP = 0;
  // Last of all: work or end did not finish, so the peer has no reply.
  virtual void fail() TOLK_LOOP = 0;

 private:
  bool failed_ = false;
};

}  // namespace tolk
