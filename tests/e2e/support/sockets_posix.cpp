#include <unistd.h>

#include <cerrno>

#include "tests/e2e/support/sockets.h"

namespace tolk::test {
namespace {

std::optional<std::size_t> outcome(ssize_t count) {
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return std::nullopt;
  return static_cast<std::size_t>(count < 0 ? 0 : count);
}

}  // namespace

Socket open_stream_socket(int family) { return socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0); }

void close_socket(Socket socket) { close(socket); }

Socket accept_from(Socket listener) { return accept4(listener, nullptr, nullptr, SOCK_CLOEXEC); }

void make_impatient(Socket) {}  // each send and receive says so itself

void allow_early_reuse(Socket socket) { set_socket_option(socket, SOL_SOCKET, SO_REUSEADDR, 1); }

bool wait_for_socket(Socket socket, short events, Milliseconds limit) {
  pollfd one{socket, events, 0};
  const auto end = std::chrono::steady_clock::now() + limit;
  for (;;) {
    const auto left =
        std::chrono::duration_cast<Milliseconds>(end - std::chrono::steady_clock::now());
    const int ready = poll(&one, 1, left.count() < 0 ? 0 : static_cast<int>(left.count()));
    if (ready >= 0 || errno != EINTR) return ready > 0;
  }
}

std::optional<std::size_t> send_some(Socket socket, std::string_view bytes) {
  return outcome(send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT));
}

std::optional<std::size_t> receive_some(Socket socket, char* to, std::size_t most) {
  return outcome(recv(socket, to, most, MSG_DONTWAIT));
}

}  // namespace tolk::test
