// Sockets of the test's own, on the loopback or by the path of a pipe. They block.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <uv.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

#include "platform/pipe_name.h"
#include "transport/endpoint.h"

namespace tolk::test {

class RawSocket {
 public:
  explicit RawSocket(const Endpoint& where) {
    if (where.is_tcp()) {
      where.parse_address(&address_);
      size_ = where.kind == Endpoint::Kind::tcp4 ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
    } else {
      auto& local = reinterpret_cast<sockaddr_un&>(address_);
      local.sun_family = AF_UNIX;
      const std::string path =
          where.name.starts_with('/') ? where.name : platform::pipe_address(where.name).path;
      path.copy(local.sun_path, sizeof local.sun_path - 1);
      size_ = sizeof local;
    }
    descriptor_ = ::socket(address_.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  }
  ~RawSocket() { close(); }
  RawSocket(RawSocket&& other) noexcept : descriptor_(other.release()) {}
  RawSocket(const RawSocket&) = delete;
  RawSocket& operator=(const RawSocket&) = delete;

  // 0 or an error of libuv's.
  int connect() const { return checked(::connect(descriptor_, address(), size_)); }
  int bind() const { return checked(::bind(descriptor_, address(), size_)); }
  int listen(int backlog = 10) const { return checked(::listen(descriptor_, backlog)); }
  bool send(const std::string& bytes) const {
    return ::send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
  }
  // Waits for the end of the stream.
  bool reads_end() const {
    char byte = 0;
    return ::recv(descriptor_, &byte, 1, 0) <= 0;
  }
  // Of one that listens: with the port that the system chose.
  Endpoint bound_to(Endpoint where) const {
    sockaddr_in bound{};
    socklen_t size = sizeof bound;
    ::getsockname(descriptor_, reinterpret_cast<sockaddr*>(&bound), &size);
    where.name = std::to_string(ntohs(bound.sin_port));
    return where;
  }
  int descriptor() const { return descriptor_; }
  int release() { return std::exchange(descriptor_, -1); }
  void close() {
    if (descriptor_ >= 0) ::close(release());
  }

 private:
  const sockaddr* address() const { return reinterpret_cast<const sockaddr*>(&address_); }
  static int checked(int result) { return result == 0 ? 0 : uv_translate_sys_error(errno); }

  sockaddr_storage address_{};
  socklen_t size_ = 0;
  int descriptor_ = -1;
};

}  // namespace tolk::test
