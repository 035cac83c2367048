// Stands between one client and its server and passes their bytes on, so that a test can end the
// connection as if the other side's process had died.
//
// Thread: any; a thread of its own does the work. Failure: a client that can't reach the server is
// hung up on.
#pragma once

#include <atomic>
#include <thread>

#include "tests/e2e/support/raw_peer.h"

namespace tolk::test {

class Relay {
 public:
  enum class Ending { closed, reset };

  // Where the client connects, and where the server listens.
  Relay(const Address& front, Address back);
  ~Relay();
  Relay(const Relay&) = delete;
  Relay& operator=(const Relay&) = delete;

  // Both sides see the other one gone when this returns, and nobody listens any more.
  void cut(Ending ending);

 private:
  void work();
  bool pass_on();
  bool wanted() const { return !cut_; }

  const Address back_;
  RawListener listener_;
  RawSocket client_;
  RawSocket server_;
  int wake_up_ = -1;
  std::atomic<bool> cut_{false};
  std::thread thread_;
};

}  // namespace tolk::test
