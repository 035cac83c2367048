#include <algorithm>

#include "tests/e2e/support/sockets.h"

namespace tolk::test {
namespace {

// Sockets have to be asked for, once in a process.
void start_sockets() {
  [[maybe_unused]] static const int started = [] {
    WSADATA data;
    return WSAStartup(MAKEWORD(2, 2), &data);
  }();
}

std::optional<std::size_t> outcome(int count) {
  if (count < 0 && WSAGetLastError() == WSAEWOULDBLOCK) return std::nullopt;
  return static_cast<std::size_t>(count < 0 ? 0 : count);
}

int at_once(std::size_t count) {
  constexpr std::size_t kMost = 1 << 20;
  return static_cast<int>(std::min(count, kMost));
}

}  // namespace

Socket open_stream_socket(int family) {
  start_sockets();
  return socket(family, SOCK_STREAM, IPPROTO_TCP);
}

void close_socket(Socket socket) { closesocket(socket); }

Socket accept_from(Socket listener) { return accept(listener, nullptr, nullptr); }

void make_impatient(Socket socket) {
  u_long yes = 1;
  ioctlsocket(socket, static_cast<long>(FIONBIO), &yes);
}

// There it is so by itself; the option of that name would let two servers have one port.
void allow_early_reuse(Socket) {}

bool wait_for_socket(Socket socket, short events, Milliseconds limit) {
  WSAPOLLFD one{socket, events, 0};
  return WSAPoll(&one, 1, static_cast<int>(std::max<std::int64_t>(limit.count(), 0))) > 0;
}

std::optional<std::size_t> send_some(Socket socket, std::string_view bytes) {
  return outcome(send(socket, bytes.data(), at_once(bytes.size()), 0));
}

std::optional<std::size_t> receive_some(Socket socket, char* to, std::size_t most) {
  return outcome(recv(socket, to, at_once(most), 0));
}

}  // namespace tolk::test
