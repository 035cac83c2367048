// What races in a cycle: a server and clients with traffic in both directions, all of which end at
// about the same time, each in one of several ways.
//
// Thread: `call` and `end` from two threads at once, the rest from the cycle's.
// Owner: what handlers use outlives the cycle, since they may return after it.
#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <utility>

#include "tests/e2e/support/handlers.h"
#include "tests/e2e/support/transports.h"
#include "tests/stress/frame/run.h"

namespace tolk::stress {

// The handlers of one object, counted.
class CountedHandlers {
 public:
  IServerMethod* make(test::CallFunction function) {
    ++made_;
    return test::on_call(std::move(function), deleted_);
  }
  int made() const { return made_; }
  int deleted() const { return deleted_.value(); }
  // Until `expected` of them are deleted; never more.
  void expect_deleted(Run& run, int expected, const std::string& whose) const;

 private:
  int made_ = 0;
  test::Counter deleted_;
};

// Uses of an object by its own handlers and hooks: none begins once it is being destroyed.
class Users {
 public:
  // Runs `use` unless the end has begun.
  template <class Use>
  void with(const Use& use) {
    if (!enter()) return;
    use();
    leave();
  }
  // From now on no use begins; returns when all have ended.
  void end();

 private:
  bool enter();
  void leave();

  std::mutex mutex_;
  std::condition_variable left_;
  int count_ = 0;
  bool ended_ = false;
};

class RacingServer {
 public:
  enum class End { close, destroy, closeasync, by_client, by_handler, by_connect_hook };

  RacingServer(Run& run, Random& random, const test::Address& address);

  void call_clients(Random& random);  // a few calls to clients that have sent "hello"
  void end();
  void destroy();
  void check_handlers() const;

 private:
  struct Shared;  // with the handlers

  void register_handlers();

  Run& run_;
  const test::Address address_;
  const bool host_keeps_;
  const End end_;
  CountedHandlers handlers_;
  std::shared_ptr<Shared> shared_;
};

class RacingClient {
 public:
  enum class End { close_twice, delete_under_calls, reconnect, by_handler, destroy_in_hook };

  RacingClient(Run& run, Random& random, const test::Address& address);

  void call(Random& random);
  void end(Random& random);
  void stop();                 // the callers
  void destroy_under_calls();  // for the end of that kind
  void destroy();              // for the others
  void check_handlers() const;

 private:
  struct Shared;

  static void register_handlers(const std::shared_ptr<Shared>& shared, CountedHandlers& handlers,
                                End end, int hook);
  void hold_one_call();
  void wait_held() const;
  void reconnect(Random& random);

  Run& run_;
  const test::Address address_;
  const bool host_keeps_;
  const End end_;
  CountedHandlers handlers_;
  std::shared_ptr<Shared> shared_;
};

// Numbers of questions, and so call ids, that the process uses once.
int next_number();

// Calls of "hold" that have come to a server.
class HeldCalls {
 public:
  static void note(int number);
  static bool has(int number);
};

}  // namespace tolk::stress
