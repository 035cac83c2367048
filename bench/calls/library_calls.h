// The library's own calls, through its public interface, as a host makes them.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "bench/calls/contestant.h"

class IClient;

namespace bench {

// Connected clients, shared by the measurements of one transport: to destroy one takes a third of a
// second.
class LibraryClients {
 public:
  LibraryClients(Transport transport, const std::string& name, std::size_t count);
  ~LibraryClients();
  LibraryClients(const LibraryClients&) = delete;
  LibraryClients& operator=(const LibraryClients&) = delete;

  IClient& operator[](std::size_t index) const { return *clients_[index]; }

 private:
  std::vector<IClient*> clients_;
};

enum class Form { send_msg, send_msg_fast };

// The callers share the first `used` clients. Each call builds its arguments, `payload` bytes, and
// compares the echo.
std::unique_ptr<Contestant> library_calls(Form form, const LibraryClients& clients,
                                          std::size_t used, std::size_t payload);
// Posts `count` calls and waits until the server's handler has seen them all.
std::unique_ptr<Contestant> library_posts(const LibraryClients& clients, std::size_t count,
                                          std::size_t payload);
// SendMsgEx with `payload` bytes; the answer is their number.
std::unique_ptr<Contestant> library_large_calls(const LibraryClients& clients, std::size_t payload);

}  // namespace bench
