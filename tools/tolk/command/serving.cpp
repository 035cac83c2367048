#include "tools/tolk/command/serving.h"

#include <atomic>
#include <thread>

#include "tools/tolk/system/interrupt.h"
#include "tools/tolk/text/output.h"

namespace tolk::tool {

void adding_method(const std::string& address, const std::string& method,
                   const std::function<void()>& add) {
  try {
    add();
  } catch (const Error& error) {
    throw Failure(Exit::usage, Error(error.code(), method, address, error.detail()).what(),
                  "choose another name; the library reserves retval, s_c_... and tolk...");
  }
}

void ConnectedClients::watch(Server& server) {
  server.on_connect([this](ClientId client) {
    const std::lock_guard<std::mutex> lock(mutex_);
    clients_.insert(client);
  });
  server.on_closed([this](ClientId client) {
    const std::lock_guard<std::mutex> lock(mutex_);
    clients_.erase(client);
    changed_.notify_all();
  });
}

void ConnectedClients::wait_until_gone() {
  if (was_interrupted()) return;
  constexpr std::chrono::seconds kEnough{1};
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait_for(lock, kEnough, [this] { return clients_.empty(); });
}

void serve_until_end(Server& server, const std::string& address, const std::string& method,
                     const std::function<void()>& before_close) {
  Output& output = Output::get();
  server.log([&output](std::string_view line) {
    while (line.ends_with('\n')) line.remove_suffix(1);
    output.detail(line);
  });
  try {
    server.listen(address);
  } catch (const Error& error) {
    throw failure_of(error, method);
  }
  end_by_itself();
  output.note("listening at " + server.address() + "; Ctrl-C ends it");
  std::atomic<bool> stopped{false};
  std::thread until_closed([&] {
    server.wait();
    stopped = true;
    ask_to_end();
  });
  wait_for_end();
  if (stopped) output.note("a client has stopped the server");
  if (before_close) before_close();
  server.close();
  until_closed.join();
}

}  // namespace tolk::tool
