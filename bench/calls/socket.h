// Plain stream sockets of the three kinds, for the baselines.
//
// Thread: any; one reader and one writer at a time for each socket.
// Owner: a Socket closes its descriptor. Failure: std::system_error; end() is no failure.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

namespace bench {

enum class Transport { pipe, tcp4, tcp6 };

const char* name_of(Transport transport);
Transport transport_of(std::string_view name);
// Where TCP peers find each other.
const char* loopback_of(Transport transport);

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
  // Whoever reads or accepts on it returns. The descriptor stays.
  void end() const;

 private:
  int descriptor_ = -1;
};

// Listens at an address that the system chooses and stores its name: the port, or the name of a
// local socket that is no file.
Socket listen_somewhere(Transport transport, std::string& name);
// Empty after end().
Socket accept_one(const Socket& listener);
Socket connect_to(Transport transport, const std::string& name);

// A TCP port that nobody listened on a moment ago.
std::string free_port(Transport transport);

// Blocking, to the last byte. False when the peer has gone.
bool write_all(const Socket& socket, std::string_view bytes);

}  // namespace bench
