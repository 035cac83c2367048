#include <atomic>
#include <iostream>
#include <thread>
#include <tolk/tolk.hpp>

int main(int argc, char** argv) {
  const tolk::Address where = argc > 1 ? argv[1] : "pipe:5000";

  tolk::Server server;
  server.on("square", [](int n) { return n * n; });
  server.listen(where);

  // Threads can share a client. Their calls run at the same time.
  tolk::Client client = tolk::connect(where);
  std::atomic<int> sum = 0;
  {
    std::vector<std::jthread> threads;
    for (int n = 1; n <= 4; ++n) {
      threads.emplace_back([&, n] { sum += client.call<int>("square", n).value(); });
    }
  }
  std::cout << sum << "\n";

  // The same without threads: both calls are under way at once.
  std::future<int> six = client.async<int>("square", 6);
  std::future<int> seven = client.async<int>("square", 7);
  std::cout << six.get() + seven.get() << "\n";
}
