// What becomes of work and of waits at the exit of the process.
#include <gtest/gtest.h>

#include <memory>

#include "tests/child_process.h"
#include "transport/process_exit.h"
#include "transport/wait_list.h"
#include "transport/work_queue.h"

namespace tolk::test {
namespace {

class Counted final : public WorkItem {
 public:
  explicit Counted(int& freed) : freed_(freed) {}
  ~Counted() override { ++freed_; }

 private:
  void work() TOLK_WORKER override {}
  void end() TOLK_LOOP override {}
  void fail() TOLK_LOOP override {}

  int& freed_;
};

// libuv may have destroyed the lock of its queue by then: nothing is enqueued any more.
TEST(WorkAtExit, IsDroppedWhenTheExitHasBegun) {
  ChildProcess child([] {
    uv_loop_t loop;
    uv_loop_init(&loop);
    int freed = 0;
    note_process_exit();
    enter_loop();
    TaskQueue ends;
    WorkQueue queue(ends);
    queue.begin(&loop, std::make_unique<Counted>(freed));
    return freed == 1 && uv_loop_alive(&loop) == 0 ? 0 : 1;
  });
  EXPECT_EQ(child.wait(), 0);
}

// libuv waits for its workers: a handler must not wait for a reply that nobody brings any more.
TEST(WaitAtExit, OfAHandlerEndsAtOnce) {
  ChildProcess child([] {
    note_process_exit();
    WaitList list(WaitList::Zero::no_limit);
    timeout_sem of_handler(0);
    timeout_sem of_other(0);
    {
      const HandlerScope handler;
      list.add(of_handler);
    }
    list.add(of_other);
    if (uv_sem_trywait(&of_handler.semaphore) != 0) return 1;
    return uv_sem_trywait(&of_other.semaphore) == 0 ? 2 : 0;
  });
  EXPECT_EQ(child.wait(), 0);
}

}  // namespace
}  // namespace tolk::test
