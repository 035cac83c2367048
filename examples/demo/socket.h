// The one TCP connection that the server of another version needs.
//
// Thread: one. Owner: its holder. Failure: port 0, false.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace demo {

class OneClientServer {
 public:
  OneClientServer();
  ~OneClientServer();
  OneClientServer(const OneClientServer&) = delete;
  OneClientServer& operator=(const OneClientServer&) = delete;

  // Listens on 127.0.0.1, on a port that the system chooses; 0 on failure.
  std::uint16_t listen();
  // Waits for the client.
  void accept();
  bool read_all(char* to, std::size_t count);
  void write_all(const char* from, std::size_t count);

 private:
  struct System;

  const std::unique_ptr<System> system_;
};

}  // namespace demo
