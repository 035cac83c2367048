// A session that does as little as one can: the steps of a life, in their order.
#pragma once

#include <gtest/gtest.h>
#include <tests/transport/event.h>

#include <functional>
#include <memory>

#include "transport/loop_session.h"

namespace tolk::test {

// `Base`: LoopSession, or what is built on it.
template <class Base>
class TestSession : public Base {
 public:
  using Milestone = LoopSession::Milestone;

  ~TestSession() override { gone_->set(); }

  // What the loop thread does before the loop runs, and between the loop's end and `ended`.
  std::function<void()> at_start = [] {};
  std::function<void()> before_ended = [] {};

  // Set when the session is destroyed.
  std::shared_ptr<Event> gone() const { return gone_; }

  bool start(std::shared_ptr<void> keep_alive = nullptr) {
    return this->start_thread(std::move(keep_alive), [this] { body(); });
  }

  void stop() {
    this->post_function([this] { stop_here(); });
  }

  // Loop.
  void stop_here() {
    this->check_loop_thread();
    this->begin_stop();
    this->close_all_handles();
    this->reach(Milestone::stopped);
    this->stop_loop();
  }

  using Base::abandon_loop;
  using Base::begin_stop;
  using Base::open_hand_off;
  using Base::open_loop;

 private:
  void body() {
    this->check_loop_thread();
    ASSERT_EQ(open_loop(), 0);
    ASSERT_EQ(open_hand_off(), 0);
    at_start();
    this->reach(Milestone::decided);
    this->run_loop();
    this->run_until_handles_closed();
    before_ended();
    this->reach(Milestone::ended);
    this->linger_and_close_loop();
  }

  const std::shared_ptr<Event> gone_ = std::make_shared<Event>();
};

}  // namespace tolk::test
