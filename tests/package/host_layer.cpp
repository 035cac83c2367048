// The least that a host of the C++ layer does: both ends of one call.
#include <iostream>
#include <tolk/tolk.hpp>

int main(int argc, char** argv) try {
  const tolk::Address address = argc > 1 ? argv[1] : "pipe:4002";
  tolk::Server server;
  server.on("add", [](int a, int b) { return a + b; });
  server.listen(address);
  tolk::Client client = tolk::connect(address);
  return client.call<int>("add", 40, 2).value() == 42 ? 0 : 1;
} catch (const tolk::Error& error) {
  std::cerr << error.what() << ": " << error.hint() << std::endl;
  return 1;
}
