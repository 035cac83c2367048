// Passes bytes on between clients that connect to one address and a server at another, unchanged:
// they need not be frames. Each client gets a connection of its own to the server.
//
// The end of sending and a reset of one side reach the other, behind the bytes that came before. Of
// a side that does not read, at most kMostWaitingBytes wait here; then the other is not read
// either.
//
// Thread: one, that of `run`, which also calls the watcher; `stop` is for others. A watcher that
// takes its time holds up the bytes, no more. Failure: of listening a Failure that names the
// address; of a connection, told to the watcher. What the watcher throws ends `run` and is thrown
// by it.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <tolk/tolk.hpp>

#include "tools/tolk/endpoint.h"

namespace tolk::tool {

enum class Direction { to_server, to_client };

class ProxyWatcher {
 public:
  virtual ~ProxyWatcher() = default;
  // A client that has come, and the address that it came to.
  virtual void opened(int connection, const Endpoint& client, const Endpoint& server) = 0;
  // Bytes on their way. Valid until it returns.
  virtual void passed(int connection, Direction direction, std::string_view bytes) = 0;
  // A connection is over, and how: also one to which the server was not there.
  virtual void closed(int connection, const std::string& how) = 0;
};

class Proxy {
 public:
  static constexpr std::size_t kMostWaitingBytes = std::size_t{256} << 10;

  // Listens at `from` from now on.
  Proxy(const Address& from, const Address& to, ProxyWatcher& watcher);
  ~Proxy();
  Proxy(const Proxy&) = delete;
  Proxy& operator=(const Proxy&) = delete;

  // Until `stop`. Connections that are open then are closed by the destructor, which still tells
  // the watcher.
  void run();
  // Any thread.
  void stop();

 private:
  class Loop;

  const std::unique_ptr<Loop> loop_;
};

}  // namespace tolk::tool
