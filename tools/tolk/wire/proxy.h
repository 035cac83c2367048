// Passes bytes on between clients that connect to one address and a server at another address. The
// bytes stay unchanged and need not be frames. Each client gets its own connection to the server.
//
// When one side ends its sending or resets the connection, the other side sees the same after the
// bytes that came before. For a side that does not read, at most kMostWaitingBytes wait here; then
// the proxy stops reading from the other side.
//
// Thread: one, that of `run`, which also calls the watcher; other threads may call `stop`. A slow
// watcher delays the bytes.
// Failure: a Failure if the proxy cannot listen; the watcher learns of a connection's failure. An
// exception of the watcher ends `run`, which throws it.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "tools/tolk/wire/host_and_port.h"
#include "tools/tolk/wire/proxy_address.h"

namespace tolk::tool {

enum class Direction { to_server, to_client };

class ProxyWatcher {
 public:
  virtual ~ProxyWatcher() = default;
  // A client has connected; `server` is the address that it connected to.
  virtual void opened(int connection, const HostAndPort& client, const HostAndPort& server) = 0;
  // The bytes that one side has sent. Valid until the function returns.
  virtual void passed(int connection, Direction direction, std::string_view bytes) = 0;
  // A connection has ended; `how` says why. Also called if the server could not be reached.
  virtual void closed(int connection, const std::string& how) = 0;
};

class Proxy {
 public:
  static constexpr std::size_t kMostWaitingBytes = std::size_t{256} << 10;

  // Begins to listen at `from`.
  Proxy(const ProxyAddress& from, const ProxyAddress& to, ProxyWatcher& watcher);
  ~Proxy();
  Proxy(const Proxy&) = delete;
  Proxy& operator=(const Proxy&) = delete;

  // Returns after `stop`. The destructor closes the connections that are still open, and calls the
  // watcher for them.
  void run();
  // Any thread.
  void stop();

 private:
  class Loop;

  const std::unique_ptr<Loop> loop_;
};

}  // namespace tolk::tool
