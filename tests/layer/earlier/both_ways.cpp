#include <iostream>
#include <tolk/tolk.hpp>

int main(int argc, char** argv) {
  const tolk::Address where = argc > 1 ? argv[1] : "pipe:5000";

  tolk::Server server(tolk::Options{.quiet = true});
  // A handler that takes a Caller can call back. The caller does not pass it.
  server.on("delete", [](const tolk::Caller& caller, const std::string& file) {
    const bool sure = caller.call<bool>("ask", "Delete " + file + "?").value();
    return std::string(sure ? "deleted" : "kept");
  });
  server.listen(where);

  tolk::Client client(tolk::Options{.quiet = true});
  // Before connect, because the server may call at once.
  client.on("ask", [](const std::string& question) {
    std::cout << question << " yes\n";
    return true;
  });
  client.connect(where);
  std::cout << client.call<std::string>("delete", "notes.txt").value() << "\n";
}
