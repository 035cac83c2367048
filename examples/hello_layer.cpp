#include <iostream>
#include <tolk/tolk.hpp>

int main(int argc, char** argv) try {
  const tolk::Address address = argc > 2 ? argv[2] : "pipe:4001";
  if (argc > 1 && argv[1] == std::string("serve")) {
    tolk::Server server;
    server.on("greet", [](const std::string& name) { return "Hello, " + name + "!"; });
    server.listen(address);
    std::cout << "press Enter to stop" << std::endl;
    std::cin.get();
  } else {
    tolk::Client client = tolk::connect(address);
    std::cout << client.call<std::string>("greet", "world").value() << std::endl;
  }
} catch (const tolk::Error& error) {
  std::cerr << error.what() << ": " << error.hint() << std::endl;
  return 1;
}
