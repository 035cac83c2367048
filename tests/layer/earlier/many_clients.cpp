#include <iostream>
#include <latch>
#include <list>
#include <tolk/tolk.hpp>

int main(int argc, char** argv) {
  const tolk::Address where = argc > 1 ? argv[1] : "pipe:5000";
  constexpr int kClients = 3;
  std::latch joined(kClients), heard(kClients);

  tolk::Server server(tolk::Options{.quiet = true});
  // A server can call a client after the client has sent something.
  server.on("join", [&] { joined.count_down(); });
  server.listen(where);

  std::list<tolk::Client> clients;
  for (int i = 0; i < kClients; ++i) {
    tolk::Client& client = clients.emplace_back(tolk::Options{.quiet = true});
    client.on("news", [&](const std::string&) { heard.count_down(); });
    client.connect(where);
    client.post("join");
  }
  joined.wait();
  for (const int id : server.clients()) server.post(id, "news", "the build is green");
  heard.wait();
  std::cout << server.clients().size() << " clients have heard it\n";
}
