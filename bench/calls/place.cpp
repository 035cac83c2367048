#include "bench/calls/place.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace bench {
namespace {

constexpr int kBacklog = 4096;

struct Address {
  union {
    sockaddr any;
    sockaddr_un local;
    sockaddr_in tcp4;
    sockaddr_in6 tcp6;
  };
  socklen_t size;
};

Address address_of(const Place& place) {
  Address address{};
  if (place.transport == Transport::pipe) {
    address.local.sun_family = AF_UNIX;
    place.path.copy(address.local.sun_path, sizeof(address.local.sun_path) - 1);
    address.size = sizeof(address.local);
  } else if (place.transport == Transport::tcp4) {
    address.tcp4.sin_family = AF_INET;
    address.tcp4.sin_port = htons(place.port);
    address.tcp4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.size = sizeof(address.tcp4);
  } else {
    address.tcp6.sin6_family = AF_INET6;
    address.tcp6.sin6_port = htons(place.port);
    address.tcp6.sin6_addr = in6addr_loopback;
    address.size = sizeof(address.tcp6);
  }
  return address;
}

int must(int result, const char* what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), what);
  return result;
}

Socket new_socket(const Address& address) {
  return Socket(must(socket(address.any.sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket"));
}

// Only TCP has delays to switch off.
Socket without_delays(Socket socket) {
  const int on = 1;
  setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  return socket;
}

}  // namespace

Transport transport_of(std::string_view name) {
  if (name == "pipe") return Transport::pipe;
  if (name == "tcp4") return Transport::tcp4;
  if (name == "tcp6") return Transport::tcp6;
  throw std::invalid_argument("no such transport");
}

Socket::~Socket() {
  if (descriptor_ >= 0) ::close(descriptor_);
}

Socket listen_at(const Place& place) {
  const Address address = address_of(place);
  Socket listener = new_socket(address);
  const int on = 1;
  setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  must(bind(listener.get(), &address.any, address.size), "bind");
  must(listen(listener.get(), kBacklog), "listen");
  return listener;
}

Socket accept_one(const Socket& listener) {
  return without_delays(
      Socket(must(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC), "accept")));
}

Socket connect_to(const Place& place) {
  const Address address = address_of(place);
  Socket socket = new_socket(address);
  must(connect(socket.get(), &address.any, address.size), "connect");
  return without_delays(std::move(socket));
}

bool write_all(const Socket& socket, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = send(socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (count <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

bool read_all(const Socket& socket, char* bytes, std::size_t count) {
  while (count != 0) {
    const ssize_t got = recv(socket.get(), bytes, count, 0);
    if (got <= 0) return false;
    bytes += got;
    count -= static_cast<std::size_t>(got);
  }
  return true;
}

}  // namespace bench
