#include <iostream>
#include <tolk/tolk.hpp>

int main(int argc, char** argv) {
  const tolk::Address where = argc > 1 ? argv[1] : "pipe:5000";

  tolk::Server server;
  server.on("upload", [](const tolk::bytes& data, const std::string& name) {
    return name + ": " + std::to_string(data.size()) + " bytes";
  });
  server.listen(where);

  tolk::Client client = tolk::connect(where);
  const tolk::bytes data(1'000'000);
  // The data is the first argument; the others follow the callback.
  const auto show = [](tolk::Progress now) {
    std::cout << static_cast<int>(100 * now.fraction()) << " %\n";
  };
  std::cout << client.send<std::string>("upload", data, show, "photo.raw").value() << "\n";

  const auto cancel = [](tolk::Progress now) { now.cancel(); };
  std::cout << client.send<std::string>("upload", data, cancel, "photo.raw").error().what() << "\n";
}
