// What the subcommands that serve share: a server from its start to its end.
//
// Thread: the main thread. Failure: Failure.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <tolk/tolk.hpp>

#include "tools/tolk/command/failure.h"

namespace tolk::tool {

// Runs what registers the method that the user has named.
void adding_method(const std::string& address, const std::string& method,
                   const std::function<void()>& add);

// The clients that are connected to a server.
//
// Thread: any. Owner: outlives the server.
class ConnectedClients {
 public:
  // Call it before the server listens.
  void watch(Server& server);

  // Waits until every client has disconnected, a second at most. A handler's last result may not
  // have reached the client when the handler returns; a client disconnects after it has the result,
  // or has had enough time.
  void wait_until_gone();

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::set<ClientId> clients_;
};

// Listens, prints that, and returns when the server has ended: after a signal, a client's request,
// or a call of ask_to_end. `before_close` ends what handlers may be waiting for.
// `method` is the method that is served, for the text of a Failure.
void serve_until_end(Server& server, const std::string& address, const std::string& method,
                     const std::function<void()>& before_close = nullptr);

}  // namespace tolk::tool
