#include "transport/loop_session.h"

#include <gtest/gtest.h>
#include <tests/transport/event.h>
#include <tests/transport/test_session.h>

#include <chrono>
#include <memory>
#include <new>
#include <thread>
#include <vector>

#if !defined(_WIN32)
#include <tests/platform/child_process.h>
#endif

namespace {

using namespace std::chrono_literals;
using tolk::LoopSession;
using tolk::test::Event;
using Milestone = LoopSession::Milestone;

using Session = tolk::test::TestSession<LoopSession>;

class Sessions : public testing::Test {
 protected:
  bool start(std::shared_ptr<void> keep_alive = nullptr) {
    return session->start(std::move(keep_alive));
  }
  void start_and_wait() {
    ASSERT_TRUE(start());
    session->wait_for(Milestone::decided);
  }
  // Stops the session and lets it go; true when its thread let it go too.
  bool stop_and_drop() {
    session->stop();
    const auto gone = session->gone();
    session.reset();
    return gone->wait();
  }

  std::shared_ptr<Session> session = std::make_shared<Session>();
};

TEST_F(Sessions, MilestonesAreReachedInOrder) {
  EXPECT_FALSE(session->wait_for(Milestone::decided, 0ms));
  start_and_wait();
  EXPECT_TRUE(session->wait_for(Milestone::decided, 0ms));
  EXPECT_FALSE(session->wait_for(Milestone::stopped, 0ms));
  EXPECT_FALSE(session->wait_for(Milestone::ended, 0ms));
  session->stop();
  session->wait_for(Milestone::ended);
  EXPECT_TRUE(session->wait_for(Milestone::stopped, 0ms)) << "a later one includes it";
  EXPECT_TRUE(stop_and_drop());
}

TEST_F(Sessions, PassedMilestoneIsNotLostAgain) {
  start_and_wait();
  session->reach(Milestone::made);
  EXPECT_TRUE(session->wait_for(Milestone::decided, 0ms));
  EXPECT_TRUE(stop_and_drop());
}

TEST_F(Sessions, PostedFunctionRunsOnTheSessionsThread) {
  start_and_wait();
  EXPECT_FALSE(session->on_own_thread());
  Event ran;
  bool on_own = false;
  EXPECT_TRUE(session->post_function([&] {
    on_own = session->on_own_thread();
    ran.set();
  }));
  ASSERT_TRUE(ran.wait());
  EXPECT_TRUE(on_own);
  EXPECT_TRUE(stop_and_drop());
}

TEST_F(Sessions, WaitOnTheOwnThreadEndsAtOnce) {
  start_and_wait();
  Event waited;
  session->post_function([&] {
    session->wait_for(Milestone::ended);
    EXPECT_FALSE(session->wait_for(Milestone::decided, 10s));
    waited.set();
  });
  EXPECT_TRUE(waited.wait());
  EXPECT_TRUE(stop_and_drop());
}

TEST_F(Sessions, PostsAreRefusedBeforeTheLoopIsThere) {
  EXPECT_FALSE(session->post_function([] {}));
}

TEST_F(Sessions, PostsAreRefusedOnceStopped) {
  start_and_wait();
  EXPECT_FALSE(session->stopping());
  session->stop();
  session->wait_for(Milestone::stopped);
  EXPECT_TRUE(session->stopping());
  bool ran = false;
  EXPECT_FALSE(session->post_function([&] { ran = true; }));
  EXPECT_TRUE(stop_and_drop());
  EXPECT_FALSE(ran);
}

TEST_F(Sessions, ThreadKeepsTheCoreUntilItIsDone) {
  auto core = std::make_shared<int>(1);
  const std::weak_ptr<int> watched = core;
  ASSERT_TRUE(start(std::move(core)));
  session->wait_for(Milestone::decided);
  EXPECT_FALSE(watched.expired());
  session->stop();
  session->wait_for(Milestone::ended);
  const auto deadline = std::chrono::steady_clock::now() + tolk::test::kPatience;
  while (!watched.expired() && std::chrono::steady_clock::now() < deadline)
    std::this_thread::yield();
  EXPECT_TRUE(watched.expired());
}

TEST_F(Sessions, BodyThatThrowsStillEnds) {
  ASSERT_TRUE(session->start_thread(nullptr, [] { throw std::bad_alloc(); }));
  EXPECT_TRUE(session->wait_for(Milestone::ended, tolk::test::kPatience));
}

TEST_F(Sessions, EndIsReachedWhileWorkStillRuns) {
  Event begun;
  Event may_finish;
  struct Work {
    uv_work_t request;
    Event* begun;
    Event* may_finish;
    bool ended;
  } work{{}, &begun, &may_finish, false};
  session->at_start = [&] {
    session->check_loop_thread();
    work.request.data = &work;
    uv_queue_work(
        session->loop(), &work.request,
        [](uv_work_t* request) {
          auto* const self = static_cast<Work*>(request->data);
          self->begun->set();
          self->may_finish->wait();
        },
        [](uv_work_t* request, int) { static_cast<Work*>(request->data)->ended = true; });
  };
  start_and_wait();
  ASSERT_TRUE(begun.wait());
  session->stop();
  EXPECT_TRUE(session->wait_for(Milestone::ended, tolk::test::kPatience));
  const auto gone = session->gone();
  session.reset();
  EXPECT_FALSE(gone->happened()) << "the loop thread lingers for the work";
  may_finish.set();
  ASSERT_TRUE(gone->wait());
  EXPECT_TRUE(work.ended) << "its completion ran on the lingering loop";
}

TEST_F(Sessions, AllHandlesAreClosedBeforeTheEnd) {
  uv_timer_t timer{};
  bool closed_before_end = false;
  session->at_start = [&] {
    session->check_loop_thread();
    uv_timer_init(session->loop(), &timer);
    uv_timer_start(
        &timer, [](uv_timer_t*) {}, 1000000, 0);
  };
  session->before_ended = [&] {
    closed_before_end = uv_is_closing(reinterpret_cast<uv_handle_t*>(&timer)) != 0;
  };
  start_and_wait();
  session->stop();
  session->wait_for(Milestone::ended);
  EXPECT_TRUE(closed_before_end);
  EXPECT_TRUE(stop_and_drop());
}

TEST_F(Sessions, LoopThatNeverRanIsClosedWhereItIsAbandoned) {
  session->adopt_this_thread();
  ASSERT_EQ(session->open_loop(), 0);
  ASSERT_EQ(session->open_hand_off(), 0);
  bool ran = false;
  EXPECT_TRUE(session->post_function([&] { ran = true; }));
  session->abandon_loop();
  EXPECT_FALSE(ran);
  EXPECT_FALSE(session->post_function([] {}));
  session->abandon_loop();
}

TEST_F(Sessions, AbandoningWhatNeverOpenedDoesNothing) { session->abandon_loop(); }

#if !defined(_WIN32)
TEST_F(Sessions, ForkedChildHasNoPartInTheSession) {
  start_and_wait();
  EXPECT_TRUE(session->of_this_process());
  tolk::test::ChildProcess child([&] {
    if (session->of_this_process()) return 1;
    if (session->post_function([] {})) return 2;
    session->wait_for(Milestone::ended);  // must not wait for a thread that is not there
    if (session->wait_for(Milestone::decided, 10s)) return 3;
    return 0;
  });
  EXPECT_EQ(child.wait(), 0);
  EXPECT_TRUE(stop_and_drop());
}
#endif

TEST(SessionsOfThreads, AllWaitersAreReleasedAtTheEnd) {
  for (int round = 0; round < 20; ++round) {
    auto session = std::make_shared<Session>();
    ASSERT_TRUE(session->start());
    std::vector<std::thread> waiters;
    for (int i = 0; i < 4; ++i) {
      waiters.emplace_back([session] { session->wait_for(Milestone::ended); });
    }
    session->wait_for(Milestone::decided);
    session->stop();
    session->stop();
    for (std::thread& waiter : waiters) waiter.join();
  }
}

}  // namespace
