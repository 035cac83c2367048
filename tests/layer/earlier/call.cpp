#include <iostream>
#include <tolk/tolk.hpp>

using namespace std::chrono_literals;

int main(int argc, char** argv) {
  const tolk::Address where = argc > 1 ? argv[1] : "pipe:5000";

  tolk::Server server(tolk::Options{.quiet = true});
  server.on("add", [](int a, int b) { return a + b; });
  server.on("divide", [](double a, double b) {
    if (b == 0) throw std::runtime_error("division by zero");
    return a / b;
  });
  server.listen(where);

  tolk::Client client = tolk::connect(where, {.quiet = true});
  // value() throws the tolk::Error of a failed call.
  std::cout << client.call<int>("add", 2, 3).value() << "\n";
  // Or test the result. A duration, always last, limits the call; the default is 5 s.
  const tolk::Result<double> ratio = client.call<double>("divide", 1.0, 0.0, 500ms);
  if (!ratio) std::cout << ratio.error().detail() << "\n";
  std::cout << ratio.value_or(-1) << "\n";
}
