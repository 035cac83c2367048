// The plain sockets of whichever system, under one set of names. For the raw peers alone.
//
// Thread: each socket from one thread at a time. Owner: the code that opened it closes it.
// Failure: kNoSocket, false; what is broken reads as ended.
#pragma once

#if defined(_WIN32)
#include <winsock2.h>
#include <ws2tcpip.h>
#else
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#endif

#include <optional>
#include <string>
#include <string_view>

#include "tests/e2e/support/waiting.h"

namespace tolk::test {

#if defined(_WIN32)
using Socket = SOCKET;
inline constexpr Socket kNoSocket = INVALID_SOCKET;
#else
using Socket = int;
inline constexpr Socket kNoSocket = -1;
#endif

// No child inherits it.
Socket open_stream_socket(int family);
void close_socket(Socket socket);
// Makes a connected socket non-blocking.
void make_impatient(Socket socket);
Socket accept_from(Socket listener);
// Has a bind succeed to the address of a server that has just stopped.
void allow_early_reuse(Socket socket);

// Until it can be read (`POLLIN`) or written (`POLLOUT`), its end included.
bool wait_for_socket(Socket socket, short events, Milliseconds limit);
// The bytes sent or received; 0 when the connection has ended; nothing when it would have to wait.
std::optional<std::size_t> send_some(Socket socket, std::string_view bytes);
std::optional<std::size_t> receive_some(Socket socket, char* to, std::size_t most);

// An address of any family, TCP or local.
struct SocketAddress {
  sockaddr_storage storage{};
  socklen_t size = 0;

  const sockaddr* any() const { return reinterpret_cast<const sockaddr*>(&storage); }
  int family() const { return storage.ss_family; }
};
SocketAddress ip4_address(const std::string& host, int port);
SocketAddress ip6_address(const std::string& host, int port);

template <class Value>
void set_socket_option(Socket socket, int level, int option, const Value& value) {
  setsockopt(socket, level, option, reinterpret_cast<const char*>(&value), sizeof value);
}

}  // namespace tolk::test
