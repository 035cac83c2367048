#include <iostream>
#include <tolk/tolk.hpp>

int main(int argc, char** argv) {
  const tolk::Address where = argc > 1 ? argv[1] : "pipe:5000";

  tolk::Server server;
  // While a handler waits for a call, another worker takes its place. The call gets the time that
  // the caller of this handler still waits.
  server.on("countdown", [](const tolk::Caller& caller, int n) -> tolk::Result<int> {
    if (n == 0) return tolk::failure("there is no time before zero", 3);
    return caller.call<int>("back", n - 1, caller.limit_left());
  });
  server.listen(where);

  tolk::Client client;
  client.on("back", [](const tolk::Caller& caller, int n) {
    return n == 0 ? 0 : caller.call<int>("countdown", n, caller.limit_left()).value();
  });
  client.connect(where);
  std::cout << client.call<int>("countdown", 20).value() << "\n";
  // An error that passes through handlers keeps its number, and names each hop once.
  const tolk::Error error = client.call<int>("countdown", 0).error();
  std::cout << error.what() << " (" << error.number() << ")\n";
}
