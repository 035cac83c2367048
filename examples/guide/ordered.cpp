#include <iostream>
#include <tolk/tolk.hpp>

int main(int argc, char** argv) {
  const tolk::Address where = argc > 1 ? argv[1] : "pipe:5000";
  std::string text;

  tolk::Server server;
  // One key of a client at a time, in the order of its posts: no lock is needed for one client.
  server.on("key", tolk::ordered, [&](const std::string& key) { text += key; });
  server.on("text", tolk::ordered, [&] { return text; });
  server.listen(where);

  tolk::Client client = tolk::connect(where);
  for (const char key : std::string("hello")) client.post("key", std::string(1, key));
  std::cout << client.call<std::string>("text").value() << "\n";
}
