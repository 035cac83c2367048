// Sides that do nothing with messages, and write down what their sessions tell them.
//
// Thread: events come on the session's thread; the test reads once the session is decided or ended,
// or waits.
#pragma once

#include <tests/transport/event.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "sessions/events.h"

namespace tolk::test {

// The events, in order.
class EventLog {
 public:
  void add(std::string event) {
    const std::lock_guard<std::mutex> lock(mutex_);
    events_.push_back(std::move(event));
    changed_.notify_all();
  }
  std::vector<std::string> all() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return events_;
  }
  bool wait_for(const std::string& event, int times = 1) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, kPatience, [&] {
      return std::count(events_.begin(), events_.end(), event) >= times;
    });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> events_;
};

// The messages' part of both.
template <class Events>
class DeafSide : public Events {
 public:
  void on_message(PeerStream&, SharedBytes) TOLK_LOOP override { told.add("message"); }

  EventLog told;
};

// Of a server; with the defaults, except what a derived one overrides.
class RecordingServer : public DeafSide<ServerEvents> {
 public:
  void on_starting(const Endpoint&) TOLK_LOOP override {}
  void on_listen_failed(const char* step, int status) TOLK_LOOP override {
    told.add(std::string(step) + " " + uv_err_name(status));
  }
  bool on_listening(uv_loop_t*, const Endpoint&) TOLK_LOOP override { return true; }
  void on_connection_error() TOLK_LOOP override { told.add("connection error"); }
  void on_connecting(int) TOLK_LOOP override { told.add("connecting"); }
  void on_accept_failed() TOLK_LOOP override { told.add("accept failed"); }
  void on_accepted(int, bool is_tcp, int count) TOLK_LOOP override {
    told.add((is_tcp ? "tcp " : "pipe ") + std::to_string(count));
  }
  void on_client_refused(const std::string&) TOLK_LOOP override { told.add("refused"); }
  void on_first_read(int) TOLK_LOOP override {}
  void on_client_gone(int, int status) TOLK_LOOP override {
    told.add(std::string("gone ") + uv_err_name(status));
  }
  void on_client_left(int, bool) TOLK_LOOP override { told.add("left"); }
  bool on_delivery() TOLK_LOOP override { return true; }
  void on_closing_async() TOLK_LOOP override {}
  void on_closed_async() TOLK_LOOP override {}
};

class RecordingClient : public DeafSide<ClientEvents> {
 public:
  void on_starting(const Endpoint&) TOLK_LOOP override { told.add("starting"); }
  void on_setup_failed(const Endpoint&, SetupStep) TOLK_LOOP override { told.add("setup"); }
  void on_server_refused(const std::string&) TOLK_LOOP override { told.add("refused"); }
  bool on_connected(uv_loop_t*, const Endpoint&) TOLK_LOOP override {
    told.add("connected");
    return wanted;
  }
  void on_server_gone(int) TOLK_LOOP override { told.add("gone"); }
  void on_lost() TOLK_LOOP override {}
  void on_closing() TOLK_LOOP override {}
  void on_closed() TOLK_LOOP override {}
  void on_run_out(const Endpoint&) TOLK_LOOP override { told.add("run out"); }
  void on_broken_off() TOLK_LOOP override {}
  bool begins_calls_when_lost() const override { return false; }
  int connect_limit_ms() const override { return limit_ms; }
  void on_attempt_failed(int status) TOLK_LOOP override {
    at_failure();
    told.add(std::string("failed ") + uv_err_name(status));
  }

  std::function<void()> at_failure = [] {};
  bool wanted = true;
  int limit_ms = 0;
};

}  // namespace tolk::test
