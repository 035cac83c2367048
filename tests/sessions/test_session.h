// A session that does as little as one can: the steps of a life, in their order.
#pragma once

#include <gtest/gtest.h>
#include <tests/transport/event.h>

#include <functional>
#include <memory>
#include <utility>

#include "sessions/session.h"

namespace tolk::test {

class QuietSide final : public MessageSide {
 public:
  void on_message(PeerStream&, SharedBytes) TOLK_LOOP override {}
};

class TestSession final : public Session {
 public:
  ~TestSession() override { gone_->set(); }

  // What the loop thread does before the session is live, and before it has ended.
  std::function<void()> at_start = [] {};
  std::function<void()> before_ended = [] {};
  // What becomes of a frame.
  std::function<bool(int peer, const std::string& payload)> peer_does =
      [](int, const std::string&) { return true; };

  // Set when the session is destroyed.
  std::shared_ptr<Event> gone() const { return gone_; }
  const std::shared_ptr<QuietSide>& quiet_side() const { return side_; }
  template <class Function>
  bool post_function(Function function) {
    return post(make_task(std::move(function)));
  }
  void stop() {
    enter(Phase::close_asked);
    wake_for_end();
  }
  // The same without asking, on the loop thread.
  void stop_here() TOLK_LOOP {
    enter(Phase::close_asked);
    carry_out_ending();
  }

  MessageSide& side() override { return *side_; }
  bool begins_calls() const override { return takes_messages(); }
  void on_stream_end(PeerStream&, int) TOLK_LOOP override {}
  bool deliver(int peer, Frame frame) TOLK_LOOP override {
    check_loop_thread();
    return peer_does(peer, std::string(frame.bytes().substr(Frame::kPrefixBytes)));
  }

  using Session::finish_loop;
  using Session::open_loop;
  using Session::open_queue;

 private:
  const char* kind() const override { return "test"; }
  void body() TOLK_LOOP override {
    ASSERT_EQ(open_loop(), 0);
    ASSERT_EQ(open_queue(), 0);
    at_start();
    enter(Phase::live);
    run_loop();
    run_until_handles_closed();
    before_ended();
    finish();
  }
  void carry_out_ending() TOLK_LOOP override {
    enter(Phase::closed);
    close_queue();
    close_all_handles();
    stop_loop();
  }
  void on_broken_off() TOLK_LOOP override {}

  const std::shared_ptr<QuietSide> side_ = std::make_shared<QuietSide>();
  const std::shared_ptr<Event> gone_ = std::make_shared<Event>();
};

}  // namespace tolk::test
