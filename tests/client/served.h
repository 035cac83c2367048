// What tests of a client's insides start from: a server of the same process, over a pipe.
#pragma once

#include <tolk/tolk.h>
#include <uv.h>

#include <atomic>
#include <memory>
#include <string>

#include "tests/e2e/support/handlers.h"

namespace tolk::test {

struct Destroys {
  void operator()(IServer* server) const { DestroyServer(server); }
};

// A name that no other process of these tests has, nor another server of this one.
inline std::string fresh_pipe() {
  static std::atomic<int> last{0};
  return std::to_string(uv_os_getpid() % 20000 * 100000 + 10000 + ++last);
}

class Served {
 public:
  // Without waiting for a client; whether it listens.
  bool start() {
    server->method("s_c_connect",
                   on_call([id = client_id_](int from, TolkParams*, TolkParams*) { *id = from; }));
    return server->InitTolkServer(pipe.c_str());
  }
  // Of the newest client.
  int client_id() const { return *client_id_; }

  const std::string pipe = fresh_pipe();
  const std::unique_ptr<IServer, Destroys> server{CreateServer()};

 private:
  const std::shared_ptr<std::atomic<int>> client_id_ = std::make_shared<std::atomic<int>>(0);
};

}  // namespace tolk::test
