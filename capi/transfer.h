// One transfer of data: its steps run where the object's callbacks run, one at a time.
//
//   schedule -> step -> … -> stop -> release, once, by whoever is alone with the transfer
//
// Thread: schedule and stop on any; step and release never at once. Two transfers share no lock.
// Owner: the call or the request that it belongs to, and a step that waits or runs.
// Failure: without memory for a step the transfer stops.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "transport/thread_safety.h"

namespace tolk {

class Core;
class Peer;

class Transfer : public std::enable_shared_from_this<Transfer> {
 public:
  Transfer(std::shared_ptr<Core> core, std::shared_ptr<Peer> peer);
  virtual ~Transfer();
  Transfer(const Transfer&) = delete;
  Transfer& operator=(const Transfer&) = delete;

  // Has a step run soon.
  void schedule();
  // No step begins any more; one that waits for its turn is not waited for. `after` is dropped when
  // the host's code of the transfer is through.
  void stop(std::shared_ptr<void> after = nullptr);
  // Before the first step.
  void stop_without_memory();

 protected:
  // Whether steps run code of the host. Without, the host's executor has nothing to do with them.
  virtual bool calls_host() const = 0;
  virtual void step() = 0;
  // Lets go of the host's source or sink. Completes what is not complete.
  virtual void release() = 0;
  bool is_stopped() const { return stopped_; }
  bool ran_out_of_memory() const { return ran_out_; }
  Core& core() const { return *core_; }
  Peer& peer() const { return *peer_; }
  const std::shared_ptr<Peer>& peer_owner() const { return peer_; }

 private:
  class Step;

  void dispatch();
  void note_listed(const std::shared_ptr<Step>& step);
  void end_waiting_step();
  void run();
  void end();

  const std::shared_ptr<Core> core_;
  const std::shared_ptr<Peer> peer_;
  // Who raises it from 0 is alone with the transfer until it is 0 again.
  std::atomic<std::uint32_t> asked_{0};
  std::atomic<bool> stopped_{false};
  struct State {
    bool is_over = false;
    std::shared_ptr<void> after;
    std::weak_ptr<Step> step;  // the latest
    bool is_listed = false;    // so that it may be run
  };
  Guarded<State> state_;
  bool ran_out_ = false;
};

}  // namespace tolk
