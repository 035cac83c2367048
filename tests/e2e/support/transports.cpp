#include "tests/e2e/support/transports.h"

#include <array>
#include <atomic>
#include <filesystem>
#include <system_error>

#include "tests/e2e/support/process_state.h"
#include "tests/e2e/support/raw_channel.h"
#include "tests/e2e/support/sockets.h"
#include "tests/e2e/support/system.h"

namespace tolk::test {
namespace {

int next_number() {
  static std::atomic<int> last{0};
  return ++last;
}

bool is_free(const SocketAddress& address) {
  const Socket probe = open_stream_socket(address.family());
  if (probe == kNoSocket) return false;
  allow_early_reuse(probe);
  const bool bound = bind(probe, address.any(), address.size) == 0;
  close_socket(probe);
  return bound;
}

SocketAddress any_ip4_address(int port) { return ip4_address("0.0.0.0", port); }
SocketAddress any_ip6_address(int port) { return ip6_address("::", port); }

// Below the ports that the system gives to connecting sockets, so that none of those takes it
// before the server does; other test processes search elsewhere in the range, also when a process
// runs many tests.
std::string free_port(SocketAddress (*any_address)(int port)) {
  constexpr int kFirst = 10000;
  constexpr int kCount = 22000;
  constexpr int kPortsOfAProcess = 1009;
  for (;;) {
    const int first = process_number() % kCount * kPortsOfAProcess;
    const int port = kFirst + (first + next_number()) % kCount;
    if (is_free(any_address(port))) return std::to_string(port);
  }
}

// A server that was killed leaves its files, and a later process can have the same id. On Windows a
// pipe ends with its server.
bool is_free_pipe(int number) {
  if (kOnWindows) return true;
  const std::string path = pipe_path(std::to_string(number));
  std::error_code ignored;
  return !std::filesystem::exists(std::filesystem::symlink_status(path, ignored)) &&
         !std::filesystem::exists(path + ".lock", ignored);
}

// Each process has numbers of its own.
int free_pipe_number() {
  constexpr int kFirst = 70000;
  constexpr int kProcesses = 65536;
  constexpr int kPipesOfAProcess = 30000;
  for (;;) {
    const int number = kFirst + process_number() % kProcesses * kPipesOfAProcess +
                       next_number() % kPipesOfAProcess;
    if (is_free_pipe(number)) return number;
  }
}

}  // namespace

Address fresh_address(Transport transport) {
  switch (transport) {
    case Transport::tcp4:
      return {transport, "127.0.0.1", free_port(any_ip4_address)};
    case Transport::tcp6:
      return {transport, "::1", free_port(any_ip6_address)};
    default:
      return {transport, {}, std::to_string(free_pipe_number())};
  }
}

bool start_server(IServer* server, const Address& address) {
  switch (address.transport) {
    case Transport::tcp4:
      return server->InitTolkServerTcp4(address.host.c_str(), address.port.c_str());
    case Transport::tcp6:
      return server->InitTolkServerTcp6(address.host.c_str(), address.port.c_str());
    default:
      return server->InitTolkServer(address.port.c_str());
  }
}

bool connect_client(IClient* client, const Address& address) {
  switch (address.transport) {
    case Transport::tcp4:
      return client->InitTolkClientTcp4(address.host.c_str(), address.port.c_str(), false);
    case Transport::tcp6:
      return client->InitTolkClientTcp6(address.host.c_str(), address.port.c_str(), false);
    default:
      return client->InitTolkClient(address.port.c_str(), false);
  }
}

std::vector<Transport> transports_of_one_server() {
  if (pipe_names_are_exclusive()) return {Transport::pipe, Transport::tcp4, Transport::tcp6};
  return {Transport::tcp4, Transport::tcp6};
}

std::string transport_name(const testing::TestParamInfo<Transport>& info) {
  constexpr std::array kNames{"Pipe", "Tcp4", "Tcp6"};
  return kNames[static_cast<std::size_t>(info.param)];
}

}  // namespace tolk::test
