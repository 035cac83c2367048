#include <iostream>
#include <thread>
#include <tolk/tolk.hpp>

using namespace std::chrono_literals;

int main(int argc, char** argv) {
  const tolk::Address where = argc > 1 ? argv[1] : "pipe:5000";
  std::promise<void> begun, ended;

  tolk::Server server;
  server.on("search", [&](const tolk::Caller& caller, const std::string&) {
    begun.set_value();
    while (!caller.cancelled()) std::this_thread::sleep_for(1ms);  // one more file …
    ended.set_value();
  });
  server.listen(where);

  tolk::Client client = tolk::connect(where);
  std::stop_source stop;
  std::future<void> search = client.async("search", "*.txt", tolk::forever, stop.get_token());
  begun.get_future().wait();
  stop.request_stop();
  try {
    search.get();
  } catch (const tolk::Error& error) {
    std::cout << error.detail() << "\n";
  }
  ended.get_future().wait();
}
