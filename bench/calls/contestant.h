// One way to exchange messages with a peer process, and the peer's end of it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "bench/calls/socket.h"

namespace bench {

// The caller's end.
// Thread: each caller number from one thread at a time; different ones at the same time.
class Contestant {
 public:
  virtual ~Contestant() = default;
  // Sends `calls_each` calls and returns when they are answered. False when an answer is missing
  // or wrong: `stamp` has to come back.
  virtual bool exchange(std::size_t caller, std::uint32_t stamp) = 0;
  virtual std::size_t calls_each() const { return 1; }
};

// The peer's end, which serves until it is destroyed.
class PeerServer {
 public:
  virtual ~PeerServer() = default;
  // Where to connect to.
  virtual std::string name() const = 0;
};

enum class Kind { library, bare_socket, bare_threads };

std::unique_ptr<PeerServer> start_library_server(Transport transport);
std::unique_ptr<PeerServer> start_bare_server(Transport transport);
std::unique_ptr<PeerServer> start_threaded_server(Transport transport);

}  // namespace bench
