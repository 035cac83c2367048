#include "sessions/session.h"

#include <gtest/gtest.h>
#include <tests/e2e/support/waiting.h>
#include <tests/sessions/test_session.h>
#include <tests/transport/event.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <new>
#include <ostream>
#include <thread>
#include <vector>

#if !defined(_WIN32)
#include <tests/child_process.h>
#endif

namespace {

using namespace std::chrono_literals;
using tolk::Phase;
using tolk::test::Event;
using tolk::test::TestSession;

class Sessions : public testing::Test {
 protected:
  void start_and_wait() {
    ASSERT_TRUE(session->start_thread());
    session->wait_until_decided();
  }
  // Stops the session and drops the test's reference; true when its thread dropped its own too.
  bool stop_and_drop() {
    session->stop();
    const auto gone = session->gone();
    session.reset();
    return gone->wait();
  }

  std::shared_ptr<TestSession> session = std::make_shared<TestSession>();
};

TEST_F(Sessions, PhasesComeInOrder) {
  EXPECT_EQ(session->phase(), Phase::starting);
  start_and_wait();
  EXPECT_EQ(session->phase(), Phase::live);
  EXPECT_FALSE(session->wait_until_ended(0ms));
  session->stop();
  session->wait_until_ended();
  EXPECT_EQ(session->phase(), Phase::ended);
  EXPECT_TRUE(stop_and_drop());
}

struct Step {
  std::vector<Phase> way;
  Phase next;
  bool follows;
};

// Otherwise its bytes are printed, the padding too.
void PrintTo(const Step& step, std::ostream* out) {
  for (const Phase phase : step.way) *out << static_cast<int>(phase) << ' ';
  *out << "then " << static_cast<int>(step.next);
}

class PhaseOrder : public testing::TestWithParam<Step> {};

TEST_P(PhaseOrder, OneEndingWinsAndNothingGoesBack) {
  TestSession session;
  for (const Phase phase : GetParam().way) ASSERT_TRUE(session.enter(phase));
  const Phase before = session.phase();
  EXPECT_EQ(session.enter(GetParam().next), GetParam().follows);
  EXPECT_EQ(session.phase(), GetParam().follows ? GetParam().next : before);
}

INSTANTIATE_TEST_SUITE_P(
    Steps, PhaseOrder,
    testing::Values(Step{{}, Phase::starting, false}, Step{{}, Phase::close_asked, false},
                    Step{{}, Phase::closeasync_asked, false}, Step{{}, Phase::lost, false},
                    Step{{}, Phase::closed, false}, Step{{}, Phase::ended, true},
                    Step{{Phase::live}, Phase::live, false},
                    Step{{Phase::live}, Phase::closed, false},
                    Step{{Phase::live}, Phase::lost, true},
                    Step{{Phase::live, Phase::close_asked}, Phase::close_asked, false},
                    Step{{Phase::live, Phase::close_asked}, Phase::closeasync_asked, false},
                    Step{{Phase::live, Phase::closeasync_asked}, Phase::close_asked, false},
                    Step{{Phase::live, Phase::close_asked}, Phase::lost, true},
                    Step{{Phase::live, Phase::close_asked}, Phase::closed, true},
                    Step{{Phase::live, Phase::closeasync_asked}, Phase::closed, true},
                    Step{{Phase::live, Phase::lost}, Phase::close_asked, false},
                    Step{{Phase::live, Phase::lost}, Phase::closed, false},
                    Step{{Phase::live, Phase::close_asked, Phase::closed}, Phase::lost, false},
                    Step{{Phase::ended}, Phase::live, false},
                    Step{{Phase::ended}, Phase::ended, false}));

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

// Posts from several threads; each waits for its task, so that the loop falls asleep in between.
void post_from_threads(TestSession& session, int tasks_of_each) {
  std::vector<std::thread> posters;
  for (int t = 0; t < 4; ++t) {
    posters.emplace_back([&session, tasks_of_each] {
      for (int i = 0; i < tasks_of_each; ++i) {
        const auto ran = std::make_shared<Event>();
        ASSERT_TRUE(session.post_function([ran] { ran->set(); }));
        ASSERT_TRUE(ran->wait()) << "task " << i;
      }
    });
  }
  for (std::thread& poster : posters) poster.join();
}

TEST_F(Sessions, TasksOfSeveralThreadsRunWhileNothingElseWakesTheLoop) {
  start_and_wait();
  post_from_threads(*session, 1000);
  EXPECT_TRUE(stop_and_drop());
}

// Two connected streams of one loop that send a byte to and fro.
class EndlessReads {
 public:
  void begin(uv_loop_t* loop) {
    uv_os_sock_t sockets[2];
    ASSERT_EQ(uv_socketpair(SOCK_STREAM, 0, sockets, UV_NONBLOCK_PIPE, UV_NONBLOCK_PIPE), 0);
    for (int i = 0; i < 2; ++i) {
      uv_tcp_init(loop, &ends_[i]);
      ends_[i].data = this;
      ASSERT_EQ(uv_tcp_open(&ends_[i], sockets[i]), 0);
      uv_read_start(stream(i), provide, on_read);
    }
    send(stream(0));
  }
  int reads() const { return reads_; }

 private:
  uv_stream_t* stream(int i) { return reinterpret_cast<uv_stream_t*>(&ends_[i]); }
  static void send(uv_stream_t* stream) {
    char byte = 'x';
    const uv_buf_t buffer = uv_buf_init(&byte, 1);
    EXPECT_EQ(uv_try_write(stream, &buffer, 1), 1);
  }
  static void provide(uv_handle_t* handle, std::size_t, uv_buf_t* buffer) {
    *buffer = uv_buf_init(&static_cast<EndlessReads*>(handle->data)->byte_, 1);
  }
  static void on_read(uv_stream_t* stream, ssize_t size, const uv_buf_t*) {
    if (size <= 0) return;
    ++static_cast<EndlessReads*>(stream->data)->reads_;
    send(stream);
  }

  uv_tcp_t ends_[2]{};
  char byte_ = 0;
  std::atomic<int> reads_{0};
};

TEST_F(Sessions, TasksOfSeveralThreadsRunWhileTheLoopReads) {
  EndlessReads reads;
  session->at_start = [&] {
    session->check_loop_thread();
    reads.begin(session->loop());
  };
  start_and_wait();
  post_from_threads(*session, 300);
  const int before = reads.reads();
  EXPECT_TRUE(tolk::test::eventually([&] { return reads.reads() > before; }));
  session->stop();
  session->wait_until_ended();
  EXPECT_TRUE(stop_and_drop());
}

TEST_F(Sessions, TasksThatArePostedBeforeTheLoopRunsRunWithIt) {
  Event of_loop_ran;
  Event of_other_ran;
  session->at_start = [&] {
    EXPECT_TRUE(session->post_function([&] { of_loop_ran.set(); }));
    std::thread([&] { EXPECT_TRUE(session->post_function([&] { of_other_ran.set(); })); }).join();
    EXPECT_FALSE(of_loop_ran.happened());
  };
  start_and_wait();
  EXPECT_TRUE(of_loop_ran.wait());
  EXPECT_TRUE(of_other_ran.wait());
  EXPECT_TRUE(stop_and_drop());
}

// A server may be started long before its loop runs.
TEST_F(Sessions, TimerThatAnEarlyTaskStartsCountsFromThen) {
  struct Expired {
    Event happened;
    uv_timer_t timer{};
    tolk::Instant started, ran;
  } expired;
  session->at_start = [&] {
    session->check_loop_thread();
    expired.timer.data = &expired;
    uv_timer_init(session->loop(), &expired.timer);
    session->post_function([&] {
      expired.started = tolk::instant_now();
      uv_timer_start(
          &expired.timer,
          [](uv_timer_t* timer) {
            auto* const of = static_cast<Expired*>(timer->data);
            of->ran = tolk::instant_now();
            of->happened.set();
          },
          100, 0);
    });
    std::this_thread::sleep_for(150ms);  // the time of the loop is older by that much
  };
  start_and_wait();
  ASSERT_TRUE(expired.happened.wait());
  EXPECT_GE(expired.ran - expired.started, 98ms);
  EXPECT_TRUE(stop_and_drop());
}

// Posts itself again until it may end.
void keep_posting(TestSession& session, std::atomic<bool>& may_end) {
  if (!may_end) session.post_function([&] { keep_posting(session, may_end); });
}

TEST_F(Sessions, TimersRunWhileEachTaskPostsAnother) {
  Event timer_ran;
  std::atomic<bool> may_end{false};
  uv_timer_t timer{};
  timer.data = &timer_ran;
  session->at_start = [&] {
    session->check_loop_thread();
    uv_timer_init(session->loop(), &timer);
    uv_timer_start(
        &timer, [](uv_timer_t* expired) { static_cast<Event*>(expired->data)->set(); }, 5, 0);
    keep_posting(*session, may_end);
  };
  start_and_wait();
  EXPECT_TRUE(timer_ran.wait());
  may_end = true;
  session->stop();
  session->wait_until_ended();
  EXPECT_TRUE(stop_and_drop());
}

TEST_F(Sessions, WaitOnTheOwnThreadEndsAtOnce) {
  start_and_wait();
  Event waited;
  session->post_function([&] {
    session->wait_until_ended();
    EXPECT_FALSE(session->wait_until_ended(10s));
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
  EXPECT_TRUE(session->takes_messages());
  session->stop();
  session->wait_until_ended();
  EXPECT_FALSE(session->takes_messages());
  bool ran = false;
  EXPECT_FALSE(session->post_function([&] { ran = true; }));
  EXPECT_TRUE(stop_and_drop());
  EXPECT_FALSE(ran);
}

TEST_F(Sessions, ThreadKeepsTheSideUntilItIsDone) {
  const std::weak_ptr<tolk::MessageSide> watched = session->quiet_side();
  start_and_wait();
  EXPECT_GT(watched.use_count(), 1);
  EXPECT_TRUE(stop_and_drop());
  EXPECT_TRUE(tolk::test::eventually([&] { return watched.expired(); }));
}

TEST_F(Sessions, BodyThatThrowsStillEnds) {
  session->at_start = [] { throw std::bad_alloc(); };
  ASSERT_TRUE(session->start_thread());
  EXPECT_TRUE(session->wait_until_ended(tolk::test::kPatience));
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
  EXPECT_TRUE(session->wait_until_ended(tolk::test::kPatience));
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
  session->wait_until_ended();
  EXPECT_TRUE(closed_before_end);
  EXPECT_TRUE(stop_and_drop());
}

TEST_F(Sessions, LoopThatNeverRanIsClosedWhereItIsAbandoned) {
  session->adopt_this_thread();
  ASSERT_EQ(session->open_loop(), 0);
  ASSERT_EQ(session->open_queue(), 0);
  bool ran = false;
  EXPECT_TRUE(session->post_function([&] { ran = true; }));
  session->finish_loop();
  EXPECT_FALSE(ran);
  EXPECT_FALSE(session->post_function([] {}));
  session->finish_loop();
}

TEST_F(Sessions, AbandoningWhatNeverOpenedDoesNothing) { session->finish_loop(); }

#if !defined(_WIN32)
TEST_F(Sessions, ForkedChildHasNoPartInTheSession) {
  start_and_wait();
  EXPECT_TRUE(session->of_this_process());
  tolk::test::ChildProcess child([&] {
    if (session->of_this_process()) return 1;
    if (session->post_function([] {})) return 2;
    session->wait_until_ended();  // must not wait for a thread that is not there
    if (session->wait_until_ended(10s)) return 3;
    return 0;
  });
  EXPECT_EQ(child.wait(), 0);
  EXPECT_TRUE(stop_and_drop());
}
#endif

TEST(SessionsOfThreads, AllWaitersAreReleasedAtTheEnd) {
  for (int round = 0; round < 20; ++round) {
    auto session = std::make_shared<TestSession>();
    ASSERT_TRUE(session->start_thread());
    std::vector<std::thread> waiters;
    for (int i = 0; i < 4; ++i) {
      waiters.emplace_back([session] { session->wait_until_ended(); });
    }
    session->wait_until_decided();
    session->stop();
    session->stop();
    for (std::thread& waiter : waiters) waiter.join();
  }
}

}  // namespace
