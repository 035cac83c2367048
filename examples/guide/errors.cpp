#include <iostream>
#include <thread>
#include <tolk/tolk.hpp>

using namespace std::chrono_literals;

void tell(const tolk::Error& error) {
  std::cout << to_string(error.code()) << "\n  " << error.detail() << "\n  " << error.hint()
            << "\n";
}

int main(int argc, char** argv) {
  const tolk::Address where = argc > 1 ? argv[1] : "pipe:5000";
  try {
    tolk::connect(where, {.quiet = true});
  } catch (const tolk::Error& error) {
    tell(error);
  }

  tolk::Server server(tolk::Options{.quiet = true});
  server.on("add", [](int a, int b) { return a + b; });
  server.on("sleep", [] { std::this_thread::sleep_for(1s); });
  server.on("fail", [] { throw std::runtime_error("out of paper"); });
  server.listen(where);

  tolk::Client client = tolk::connect(where, {.quiet = true});
  tell(client.call("sleep", 100ms).error());
  tell(client.call("subtract", 3, 2).error());
  tell(client.call("fail").error());
  tell(client.call<int>("add", 1, "two").error());
  tell(client.call<std::string>("add", 1, 2).error());
}
