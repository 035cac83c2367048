// The three transports, so that one test body runs over each of them: its name then ends in /Pipe,
// /Tcp4 or /Tcp6.
//
//   class Calls : public OverTransports {};
//   TOLK_OVER_TRANSPORTS(Calls);
//   TEST_P(Calls, ComeBack) { ... start_server(server.get(), address) ... }
#pragma once

#include <gtest/gtest.h>
#include <tolk/tolk.h>

#include <memory>
#include <string>
#include <vector>

namespace tolk::test {

enum class Transport { pipe, tcp4, tcp6 };

struct Address {
  Transport transport = Transport::pipe;
  std::string host;  // TCP only
  std::string port;  // for a pipe its name, which is a number too

  bool is_pipe() const { return transport == Transport::pipe; }
};

// An address where nobody listens, and that no other test uses, in this process or another.
Address fresh_address(Transport transport);

bool start_server(IServer* server, const Address& address);
bool connect_client(IClient* client, const Address& address);

struct DestroysServer {
  void operator()(IServer* server) const { DestroyServer(server); }
};
struct DestroysClient {
  void operator()(IClient* client) const { DestroyClient(client); }
};
using ServerPtr = std::unique_ptr<IServer, DestroysServer>;
using ClientPtr = std::unique_ptr<IClient, DestroysClient>;

inline ServerPtr make_server() { return ServerPtr(CreateServer()); }
inline ClientPtr make_client() { return ClientPtr(CreateClient()); }

class OverTransports : public testing::TestWithParam<Transport> {
 protected:
  bool is_pipe() const { return GetParam() == Transport::pipe; }

  const Address address = fresh_address(GetParam());
};

// Those over which a second server at the same address is refused.
std::vector<Transport> transports_of_one_server();

std::string transport_name(const testing::TestParamInfo<Transport>& info);

}  // namespace tolk::test

#define TOLK_OVER_TRANSPORTS(Suite)                                             \
  INSTANTIATE_TEST_SUITE_P(                                                     \
      , Suite,                                                                  \
      testing::Values(tolk::test::Transport::pipe, tolk::test::Transport::tcp4, \
                      tolk::test::Transport::tcp6),                             \
      tolk::test::transport_name)
