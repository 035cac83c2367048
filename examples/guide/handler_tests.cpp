#include <iostream>
#include <tolk/tolk.hpp>

// Handlers that are members of a class need no server in their tests.
class Counter {
 public:
  int add(int n) { return total_ += n; }
  tolk::Result<int> divide(int by) {
    if (by == 0) return tolk::failure("division by zero");
    return total_ / by;
  }
  void serve(tolk::Server& server) {
    server.on("add", [this](int n) { return add(n); });
    server.on("divide", [this](int by) { return divide(by); });
  }

 private:
  int total_ = 0;
};

int main() {
  Counter counter;
  counter.add(3);
  std::cout << counter.add(4) << "\n";
  std::cout << counter.divide(0).error().detail() << "\n";

  // What callers will see, without a listening server either.
  tolk::Server server;
  counter.serve(server);
  for (const tolk::MethodInfo& method : server.methods()) {
    std::cout << method.name << method.signature << "\n";
  }
}
