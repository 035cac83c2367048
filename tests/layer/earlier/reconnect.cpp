#include <atomic>
#include <cstdio>
#include <tolk/tolk.hpp>

using namespace std::chrono_literals;

std::unique_ptr<tolk::Server> started(const tolk::Address& where) {
  auto server = std::make_unique<tolk::Server>(tolk::Options{.quiet = true});
  server->on("ping", [] { return std::string("pong"); });
  server->listen(where);
  return server;
}

// Not std::cout: the library prints a line on another thread when the server closes, and after
// `quiet` two threads must not use std::cout at once.
void print(const std::string& line) { std::puts(line.c_str()); }

int main(int argc, char** argv) {
  const tolk::Address where = argc > 1 ? argv[1] : "pipe:5000";
  std::unique_ptr<tolk::Server> server = started(where);

  tolk::Client client = tolk::connect(where, {.quiet = true});
  std::atomic<bool> gone = false;
  // calls_wait: a call waits for the new connection until its own limit.
  client.reconnecting({.calls_wait = true, .changed = [&](bool connected) {
                         if (!connected) gone = true;
                         gone.notify_all();
                       }});
  print(client.call<std::string>("ping").value());

  server.reset();
  gone.wait(false);
  print("the server is gone");
  server = started(where);
  // The library does not repeat a call that was under way when the connection ended: only the host
  // knows whether the method may run twice.
  const auto may_try_again = [](tolk::Errc code) {
    return code == tolk::Errc::gone || code == tolk::Errc::interrupted;
  };
  tolk::Result<std::string> answer = client.call<std::string>("ping", 10s);
  while (!answer && may_try_again(answer.error().code())) {
    answer = client.call<std::string>("ping", 10s);
  }
  print(answer.value());
}
