#include <iostream>
#include <latch>
#include <list>
#include <tolk/tolk.hpp>

int main(int argc, char** argv) {
  const tolk::Address where = argc > 1 ? argv[1] : "pipe:5000";
  constexpr int kClients = 3;
  std::latch joined(kClients), heard(kClients);

  tolk::Server server;
  server.on("join", [&] { joined.count_down(); });
  server.listen(where);

  std::list<tolk::Client> clients;
  for (int i = 0; i < kClients; ++i) {
    tolk::Client& client = clients.emplace_back();
    client.on("news", [&](const std::string&) { heard.count_down(); });
    client.connect(where);
    client.post("join");
  }
  joined.wait();
  server.broadcast("news", "the build is green");  // server.post(id, …) is for one of clients()
  heard.wait();
  std::cout << server.clients().size() << " clients have heard it\n";
}
