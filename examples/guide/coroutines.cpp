#include <iostream>
#include <tolk/tolk.hpp>

tolk::Task<int> area(tolk::Client& client) {
  // A coroutine does not occupy a thread while it awaits a call.
  const tolk::Result<int> width = co_await client.call_async<int>("width");
  const tolk::Result<int> height = co_await client.call_async<int>("height");
  co_return width.value() * height.value();
}

int main(int argc, char** argv) {
  const tolk::Address where = argc > 1 ? argv[1] : "pipe:5000";

  tolk::Server server;
  server.on("width", [] { return 6; });
  // A handler may be a coroutine too. Its parameters live until it ends.
  server.on("height", [](const tolk::Caller& caller) -> tolk::Task<int> {
    const tolk::Result<int> scale = co_await caller.call_async<int>("scale");
    co_return 3 * scale.value();
  });
  server.listen(where);

  tolk::Client client;
  client.on("scale", [] { return 2; });
  client.connect(where);
  std::cout << area(client).get() << "\n";
}
