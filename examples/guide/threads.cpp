#include <atomic>
#include <iostream>
#include <thread>
#include <tolk/tolk.hpp>

int main(int argc, char** argv) {
  const tolk::Address where = argc > 1 ? argv[1] : "pipe:5000";

  tolk::Server server(tolk::Options{.quiet = true});
  server.on("square", [](int n) { return n * n; });
  server.listen(where);

  // One client for all threads: their calls run side by side, and each gets its own result.
  tolk::Client client = tolk::connect(where, {.quiet = true});
  std::atomic<int> sum = 0;
  {
    std::vector<std::jthread> threads;
    for (int n = 1; n <= 4; ++n) {
      threads.emplace_back([&, n] { sum += client.call<int>("square", n).value(); });
    }
  }
  std::cout << sum << "\n";

  // Or without threads of one's own.
  std::future<int> six = client.async<int>("square", 6);
  std::future<int> seven = client.async<int>("square", 7);
  std::cout << six.get() + seven.get() << "\n";
}
