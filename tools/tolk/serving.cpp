#include "tools/tolk/serving.h"

#include <atomic>
#include <thread>

#include "tools/tolk/command.h"
#include "tools/tolk/interrupt.h"
#include "tools/tolk/output.h"

namespace tolk::tool {

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
