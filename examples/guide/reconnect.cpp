#include <atomic>
#include <iostream>
#include <tolk/tolk.hpp>

using namespace std::chrono_literals;

std::unique_ptr<tolk::Server> started(const tolk::Address& where) {
  auto server = std::make_unique<tolk::Server>();
  server->on("ping", [] { return std::string("pong"); });
  server->listen(where);
  return server;
}

int main(int argc, char** argv) {
  const tolk::Address where = argc > 1 ? argv[1] : "pipe:5000";
  std::unique_ptr<tolk::Server> server = started(where);

  std::atomic<bool> gone = false;
  tolk::Client client = tolk::connect(where);
  // calls_wait: a call waits for the new connection until its own limit.
  client.reconnecting({.calls_wait = true, .changed = [&](bool connected) {
                         if (!connected) gone = true;
                         gone.notify_all();
                       }});
  std::cout << client.call<std::string>("ping").value() << "\n";

  server.reset();
  gone.wait(false);
  std::cout << "the server is gone\n";
  server = started(where);
  // The library does not repeat a call that was under way when the connection ended: only the host
  // knows whether the method may run twice.
  tolk::Result<std::string> answer = client.call<std::string>("ping", 10s);
  while (!answer && answer.error().code() == tolk::Errc::gone) {
    answer = client.call<std::string>("ping", 10s);
  }
  std::cout << answer.value() << "\n";
}
