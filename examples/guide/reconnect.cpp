#include <atomic>
#include <iostream>
#include <tolk/tolk.hpp>

using namespace std::chrono_literals;

std::unique_ptr<tolk::Server> started(const tolk::Address& where) {
  auto server = std::make_unique<tolk::Server>(tolk::Options{.quiet = true});
  server->on("ping", [] { return std::string("pong"); });
  server->listen(where);
  return server;
}

int main(int argc, char** argv) {
  const tolk::Address where = argc > 1 ? argv[1] : "pipe:5000";
  std::unique_ptr<tolk::Server> server = started(where);

  tolk::Client client = tolk::connect(where, {.quiet = true});
  std::atomic<bool> gone = false;
  // calls_wait: a call waits for the new connection, as long as its limit allows.
  client.reconnecting({.calls_wait = true, .changed = [&](bool connected) {
                         if (!connected) gone = true;
                         gone.notify_all();
                       }});
  std::cout << client.call<std::string>("ping").value() << std::endl;

  server.reset();
  gone.wait(false);
  std::cout << "the server is gone" << std::endl;
  server = started(where);
  // A call that was under way when the server went is not made again by itself.
  tolk::Result<std::string> answer = client.call<std::string>("ping", 10s);
  while (!answer && answer.error().code() == tolk::Errc::gone) {
    answer = client.call<std::string>("ping", 10s);
  }
  std::cout << answer.value() << std::endl;
}
