#include <winsock2.h>
#include <ws2tcpip.h>

#include "socket.h"

namespace demo {

struct OneClientServer::System {
  SOCKET listener = INVALID_SOCKET;
  SOCKET client = INVALID_SOCKET;
};

OneClientServer::OneClientServer() : system_(std::make_unique<System>()) {
  WSADATA data;
  WSAStartup(MAKEWORD(2, 2), &data);
}

OneClientServer::~OneClientServer() {
  closesocket(system_->client);
  closesocket(system_->listener);
}

std::uint16_t OneClientServer::listen() {
  system_->listener = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  int size = sizeof address;
  auto* const any = reinterpret_cast<sockaddr*>(&address);
  const bool listening = bind(system_->listener, any, size) == 0 &&
                         ::listen(system_->listener, 1) == 0 &&
                         getsockname(system_->listener, any, &size) == 0;
  return listening ? ntohs(address.sin_port) : std::uint16_t{0};
}

void OneClientServer::accept() { system_->client = ::accept(system_->listener, nullptr, nullptr); }

bool OneClientServer::read_all(char* to, std::size_t count) {
  for (std::size_t done = 0; done < count;) {
    const int got = recv(system_->client, to + done, static_cast<int>(count - done), 0);
    if (got <= 0) return false;
    done += static_cast<std::size_t>(got);
  }
  return true;
}

void OneClientServer::write_all(const char* from, std::size_t count) {
  send(system_->client, from, static_cast<int>(count),
       0);  // the client notices a failure as a timeout
}

}  // namespace demo
