#include "bench/calls/socket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace bench {
namespace {

constexpr int kBacklog = 64;
constexpr int kAnswerLimitS = 10;

struct Address {
  union {
    sockaddr any;
    sockaddr_un local;
    sockaddr_in tcp4;
    sockaddr_in6 tcp6;
  };
  socklen_t size;
};

// A local name starts with a zero byte: such a socket is no file, and goes with its process.
Address local_address(const std::string& name) {
  Address address{};
  address.local.sun_family = AF_UNIX;
  std::memcpy(address.local.sun_path + 1, name.data(),
              std::min(name.size(), sizeof(address.local.sun_path) - 1));
  address.size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
  return address;
}

Address address_of(Transport transport, const std::string& name) {
  if (transport == Transport::pipe) return local_address(name);
  const std::uint16_t port = htons(static_cast<std::uint16_t>(std::stoi(name)));
  Address address{};
  if (transport == Transport::tcp4) {
    address.tcp4.sin_family = AF_INET;
    address.tcp4.sin_port = port;
    address.tcp4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.size = sizeof(address.tcp4);
  } else {
    address.tcp6.sin6_family = AF_INET6;
    address.tcp6.sin6_port = port;
    address.tcp6.sin6_addr = in6addr_loopback;
    address.size = sizeof(address.tcp6);
  }
  return address;
}

int must(int result, const char* what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), what);
  return result;
}

// TCP without delays; and no read waits forever, so that a broken peer is a failed run.
Socket ready(Socket socket) {
  const int on = 1;
  setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  const timeval limit{kAnswerLimitS, 0};
  must(setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit), "setsockopt");
  return socket;
}

Socket new_socket(const Address& address) {
  return Socket(must(socket(address.any.sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket"));
}

std::string port_of(const Socket& socket, Transport transport) {
  Address address{};
  address.size = sizeof(address.tcp6);
  must(getsockname(socket.get(), &address.any, &address.size), "getsockname");
  return std::to_string(
      ntohs(transport == Transport::tcp4 ? address.tcp4.sin_port : address.tcp6.sin6_port));
}

}  // namespace

const char* name_of(Transport transport) {
  switch (transport) {
    case Transport::pipe:
      return "pipe";
    case Transport::tcp4:
      return "tcp4";
    case Transport::tcp6:
      return "tcp6";
  }
  return "";
}

Transport transport_of(std::string_view name) {
  for (const Transport transport : {Transport::pipe, Transport::tcp4, Transport::tcp6}) {
    if (name == name_of(transport)) return transport;
  }
  throw std::invalid_argument("no such transport");
}

const char* loopback_of(Transport transport) {
  return transport == Transport::tcp6 ? "::1" : "127.0.0.1";
}

Socket::~Socket() {
  if (descriptor_ >= 0) ::close(descriptor_);
}

void Socket::end() const { ::shutdown(descriptor_, SHUT_RDWR); }

Socket listen_somewhere(Transport transport, std::string& name) {
  name = transport == Transport::pipe ? "tolk.bench." + std::to_string(getpid()) : "0";
  const Address address = address_of(transport, name);
  Socket listener = new_socket(address);
  must(bind(listener.get(), &address.any, address.size), "bind");
  must(listen(listener.get(), kBacklog), "listen");
  if (transport != Transport::pipe) name = port_of(listener, transport);
  return listener;
}

Socket accept_one(const Socket& listener) {
  const int accepted = accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC);
  return accepted < 0 ? Socket() : ready(Socket(accepted));
}

Socket connect_to(Transport transport, const std::string& name) {
  const Address address = address_of(transport, name);
  Socket socket = new_socket(address);
  must(connect(socket.get(), &address.any, address.size), "connect");
  return ready(std::move(socket));
}

std::string free_port(Transport transport) {
  std::string port;
  listen_somewhere(transport, port);
  return port;
}

bool write_all(const Socket& socket, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = send(socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (count <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

}  // namespace bench
