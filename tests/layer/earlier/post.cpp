#include <future>
#include <iostream>
#include <tolk/tolk.hpp>

int main(int argc, char** argv) {
  const tolk::Address where = argc > 1 ? argv[1] : "pipe:5000";
  std::promise<void> logged;

  tolk::Server server(tolk::Options{.quiet = true});
  server.on("log", [&](tolk::named<"level", int> level, const std::string& text) {
    std::cout << "level " << level << ": " << text << "\n";
    logged.set_value();
  });
  server.listen(where);

  tolk::Client client = tolk::connect(where, {.quiet = true});
  // Returns when the call is on its way. Nothing reports whether the method ran.
  client.post("log", tolk::arg("level", 3), "disk nearly full");
  logged.get_future().wait();
}
