#include "tests/e2e/support/socket_channel.h"

#if defined(_WIN32)
#include <ws2tcpip.h>
#else
#include <arpa/inet.h>
#include <netinet/tcp.h>
#endif

namespace tolk::test {
namespace {

// shutdown()'s names for these differ, its numbers don't.
constexpr int kNoMoreReceiving = 0;
constexpr int kNoMoreSending = 1;

class SocketChannel final : public RawChannel {
 public:
  // A small frame after another one is sent at once. On a pipe this has no effect.
  explicit SocketChannel(Socket socket) : socket_(socket) {
    set_socket_option(socket_, IPPROTO_TCP, TCP_NODELAY, 1);
    make_impatient(socket_);
  }
  ~SocketChannel() override { close_socket(socket_); }
  SocketChannel(const SocketChannel&) = delete;
  SocketChannel& operator=(const SocketChannel&) = delete;

  std::optional<std::size_t> read_some(char* to, std::size_t most, Milliseconds limit) override {
    return is_readable(limit) ? receive_some(socket_, to, most) : std::nullopt;
  }
  std::optional<std::size_t> write_some(std::string_view bytes, Milliseconds limit) override {
    return wait_for_socket(socket_, POLLOUT, limit) ? send_some(socket_, bytes) : std::nullopt;
  }
  bool is_readable(Milliseconds limit) override { return wait_for_socket(socket_, POLLIN, limit); }

  int descriptor() const override { return static_cast<int>(socket_); }
  void close_with_reset() override {
    linger at_once{};
    at_once.l_onoff = 1;
    set_socket_option(socket_, SOL_SOCKET, SO_LINGER, at_once);
  }
  void end_sending() override { shutdown(socket_, kNoMoreSending); }
  void end_receiving() override { shutdown(socket_, kNoMoreReceiving); }
  void shrink_receive_buffer() override {
    set_socket_option(socket_, SOL_SOCKET, SO_RCVBUF, 1);  // the system takes its minimum
  }

 private:
  const Socket socket_;
};

class SocketAcceptor final : public RawAcceptor {
 public:
  explicit SocketAcceptor(const SocketAddress& at) : socket_(open_stream_socket(at.family())) {
    allow_early_reuse(socket_);
    EXPECT_EQ(bind(socket_, at.any(), at.size), 0);
    EXPECT_EQ(listen(socket_, SOMAXCONN), 0);
  }
  ~SocketAcceptor() override { close_socket(socket_); }
  SocketAcceptor(const SocketAcceptor&) = delete;
  SocketAcceptor& operator=(const SocketAcceptor&) = delete;

  std::unique_ptr<RawChannel> accept(Milliseconds limit) override {
    if (!wait_for_socket(socket_, POLLIN, limit)) return nullptr;
    const Socket accepted = accept_from(socket_);
    return accepted == kNoSocket ? nullptr : adopt_socket(accepted);
  }

 private:
  const Socket socket_;
};

SocketAddress tcp_address(const Address& address) {
  const int port = std::atoi(address.port.c_str());
  return address.transport == Transport::tcp4 ? ip4_address(address.host, port)
                                              : ip6_address(address.host, port);
}

}  // namespace

SocketAddress ip4_address(const std::string& host, int port) {
  SocketAddress made;
  auto* const ip4 = reinterpret_cast<sockaddr_in*>(&made.storage);
  ip4->sin_family = AF_INET;
  ip4->sin_port = htons(static_cast<std::uint16_t>(port));
  inet_pton(AF_INET, host.c_str(), &ip4->sin_addr);
  made.size = sizeof *ip4;
  return made;
}

SocketAddress ip6_address(const std::string& host, int port) {
  SocketAddress made;
  auto* const ip6 = reinterpret_cast<sockaddr_in6*>(&made.storage);
  ip6->sin6_family = AF_INET6;
  ip6->sin6_port = htons(static_cast<std::uint16_t>(port));
  inet_pton(AF_INET6, host.c_str(), &ip6->sin6_addr);
  made.size = sizeof *ip6;
  return made;
}

std::unique_ptr<RawChannel> connect_socket(const SocketAddress& address) {
  const Socket made = open_stream_socket(address.family());
  if (::connect(made, address.any(), address.size) == 0) return adopt_socket(made);
  close_socket(made);
  return nullptr;
}

std::unique_ptr<RawChannel> adopt_socket(Socket connected) {
  return std::make_unique<SocketChannel>(connected);
}

std::unique_ptr<RawAcceptor> listen_on_socket(const SocketAddress& address) {
  return std::make_unique<SocketAcceptor>(address);
}

std::unique_ptr<RawChannel> open_channel(const Address& address) {
  return address.is_pipe() ? open_pipe_channel(address.port) : connect_socket(tcp_address(address));
}

std::unique_ptr<RawAcceptor> open_acceptor(const Address& address) {
  return address.is_pipe() ? open_pipe_acceptor(address.port)
                           : listen_on_socket(tcp_address(address));
}

}  // namespace tolk::test
