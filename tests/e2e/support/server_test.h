// The fixture of the server tests: a server at an address of each transport, and the lines that it
// prints.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "tests/e2e/support/capture.h"
#include "tests/e2e/support/handlers.h"
#include "tests/e2e/support/raw_peer.h"
#include "tests/e2e/support/system.h"

namespace tolk::test {

// Things in the order in which threads noted them. Copies are the same journal.
class Journal {
 public:
  void note(const std::string& what) {
    const std::lock_guard<std::mutex> lock(shared_->mutex);
    shared_->notes.push_back(what);
  }
  std::vector<std::string> notes() const {
    const std::lock_guard<std::mutex> lock(shared_->mutex);
    return shared_->notes;
  }
  bool wait_for(std::size_t count) const {
    return eventually([&] { return notes().size() >= count; });
  }

 private:
  struct Shared {
    std::mutex mutex;
    std::vector<std::string> notes;
  };

  std::shared_ptr<Shared> shared_ = std::make_shared<Shared>();
};

class ServerTest : public OverTransports {
 protected:
  void start() { ASSERT_TRUE(start_server(server.get(), address)); }

  // "Pipe …" or "Tcp …": the line of a start.
  std::string start_line() const { return start_line(address); }
  static std::string start_line(const Address& at) {
    return std::string(at.is_pipe() ? "Pipe " : "Tcp ") + kVersion + " port:" + at.port + "\n";
  }
  // The line of an accept; a pipe server does not say how many connections there are.
  std::string accept_line(int accepted, int id, int connections) const {
    return "Accept success: " + std::to_string(accepted) + " client id: " + std::to_string(id) +
           " all count:" + (is_pipe() ? std::string(" ") : std::to_string(connections) + " ") +
           "\n";
  }
  // What is printed of a client that left with an error.
  std::string reset_line() const {
    return is_pipe() && !kPipesCanBeReset ? "" : "Read error ECONNRESET\n";
  }
  static std::string close_line(int id) { return "Client Close: " + std::to_string(id) + "\n"; }

  // A handler of "s_c_connect" that keeps the id of the newest connection in `newest_id`.
  IServerMethod* noting_id() {
    return on_call([newest = newest_id](int id, TolkParams*, TolkParams*) { *newest = id; });
  }
  // Registers "echo", which answers the first string among its arguments.
  void register_echo() {
    server->method("echo", on_call([](int, TolkParams* in, TolkParams* out) {
                     out->AddString(string_at(in, 0).c_str());
                   }));
  }
  // Whether the server answers `client` normally.
  static bool serves(RawClient& client) {
    const auto answer = client.call("echo", 3, BlockWriter().add("ping").bytes());
    return answer && answer->string_at(0) == "ping" && answer->call_id() == 3;
  }

  const std::shared_ptr<std::atomic<int>> newest_id = std::make_shared<std::atomic<int>>(0);
  ServerPtr server = make_server();
};

// The number after `label` in a line: "… client id: 17 …".
inline int number_after(const std::string& line, const std::string& label) {
  const std::size_t at = line.find(label);
  return at == std::string::npos ? -1 : std::atoi(line.c_str() + at + label.size());
}

}  // namespace tolk::test
