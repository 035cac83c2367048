#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "socket.h"

namespace demo {

struct OneClientServer::System {
  int listener = -1;
  int client = -1;
};

OneClientServer::OneClientServer() : system_(std::make_unique<System>()) {}

OneClientServer::~OneClientServer() {
  close(system_->client);
  close(system_->listener);
}

std::uint16_t OneClientServer::listen() {
  system_->listener = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* const any = reinterpret_cast<sockaddr*>(&address);
  const bool listening = bind(system_->listener, any, size) == 0 &&
                         ::listen(system_->listener, 1) == 0 &&
                         getsockname(system_->listener, any, &size) == 0;
  return listening ? ntohs(address.sin_port) : 0;
}

void OneClientServer::accept() { system_->client = ::accept(system_->listener, nullptr, nullptr); }

bool OneClientServer::read_all(char* to, std::size_t count) {
  for (std::size_t done = 0; done < count;) {
    const ssize_t got = read(system_->client, to + done, count - done);
    if (got <= 0) return false;
    done += static_cast<std::size_t>(got);
  }
  return true;
}

void OneClientServer::write_all(const char* from, std::size_t count) {
  if (write(system_->client, from, count) < 0) return;  // the client notices a failure as a timeout
}

}  // namespace demo
