#include <iostream>
#include <mutex>
#include <tolk/tolk.hpp>

int main(int argc, char** argv) {
  const tolk::Address where = argc > 1 ? argv[1] : "pipe:5000";
  std::mutex mutex;
  std::string lines;

  tolk::Server server;  // quiet would leave only the failures
  server.on("fail", [] { throw std::runtime_error("out of paper"); });
  // Gets each line with its line end, on the thread that logs it.
  server.log([&](std::string_view line) {
    const std::lock_guard lock(mutex);
    lines += line;
  });
  server.listen(where);

  tolk::Client client = tolk::connect(where, {.quiet = true});
  client.call("fail");
  const std::lock_guard lock(mutex);
  std::cout << lines.substr(lines.find("handler error"));
}
