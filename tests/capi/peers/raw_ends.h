// An end of the C interface and a peer on plain sockets, or a peer of another interface.
#pragma once

#include <tolk/c.h>

#include <string>

#include "tests/capi/pair.h"
#include "tests/e2e/support/raw_peer.h"
#include "tests/e2e/support/transports.h"

namespace tolk::test {

// As the C interface writes it.
std::string c_address(const Address& at);

Owned<tolk_server> c_server(const Address& at, const Methods& methods,
                            tolk_server_options options = {});
Owned<tolk_client> c_client(const Address& at, const Methods& methods,
                            tolk_client_options options = {});

// Keeps the name of each call that its owner's catch-all gets, and answers nothing.
class NamesSeen {
 public:
  void add(const std::string& name);
  bool has(const std::string& name) const;
  bool has_prefix(const std::string& prefix) const;

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> names_;
};

}  // namespace tolk::test

// As TOLK_OVER_TRANSPORTS; tests of pairs have a transport_name of their own.
#define TOLK_CAPI_OVER_TRANSPORTS(Suite)                                        \
  INSTANTIATE_TEST_SUITE_P(                                                     \
      , Suite,                                                                  \
      testing::Values(tolk::test::Transport::pipe, tolk::test::Transport::tcp4, \
                      tolk::test::Transport::tcp6),                             \
      [](const auto& each) { return tolk::test::transport_name(each); })
