// Where a server listens, and plain stream sockets to get there.
//
// Thread: any. Owner: a Socket closes its descriptor. Failure: std::system_error.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

namespace bench {

enum class Transport { pipe, tcp4, tcp6 };

Transport transport_of(std::string_view name);

struct Place {
  Transport transport = Transport::pipe;
  std::string path;        // the socket file of a pipe
  std::uint16_t port = 0;  // of TCP on the loopback; the library's pipes have it as their name

  const char* host() const { return transport == Transport::tcp6 ? "::1" : "127.0.0.1"; }
  // As most libraries want it. Some need a second port beside the first.
  std::string host_and_port(std::uint16_t offset = 0) const {
    const std::string name = transport == Transport::tcp6 ? "[::1]:" : "127.0.0.1:";
    return name + std::to_string(port + offset);
  }
};

class Socket {
 public:
  Socket() = default;
  explicit Socket(int descriptor) : descriptor_(descriptor) {}
  Socket(Socket&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
  Socket& operator=(Socket&& other) noexcept {
    std::swap(descriptor_, other.descriptor_);
    return *this;
  }
  ~Socket();

  int get() const { return descriptor_; }
  int release() { return std::exchange(descriptor_, -1); }

 private:
  int descriptor_ = -1;
};

Socket listen_at(const Place& place);
Socket accept_one(const Socket& listener);
Socket connect_to(const Place& place);

// Blocking, to the last byte. False when the peer has gone.
bool write_all(const Socket& socket, std::string_view bytes);
bool read_all(const Socket& socket, char* bytes, std::size_t count);

}  // namespace bench
