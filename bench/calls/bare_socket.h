// The floor: blocking reads and writes on one socket for each caller, one thread on each side of
// it, nothing in between.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "bench/calls/contestant.h"
#include "bench/calls/traffic.h"

namespace bench {

// Blocking whole frames on a socket. The payload is valid until the next read.
// Thread: one that reads, one that writes.
class FrameSocket {
 public:
  explicit FrameSocket(Socket socket) : socket_(std::move(socket)), buffer_(65536, '\0') {}

  bool write(std::string_view frame) const { return write_all(socket_, frame); }
  // Empty when the peer has gone, or says nothing for too long.
  std::string_view read();
  const Socket& socket() const { return socket_; }

 private:
  Socket socket_;
  std::string buffer_;
  std::size_t begin_ = 0;  // of what waits in the buffer
  std::size_t end_ = 0;
};

// Each of `callers` has a connection of its own.
std::unique_ptr<Contestant> bare_calls(Transport transport, const std::string& name,
                                       std::size_t callers, FrameBytes bytes);
// Writes `count` frames without waiting, while a second thread takes the answers.
std::unique_ptr<Contestant> bare_posts(Transport transport, const std::string& name,
                                       std::size_t count, FrameBytes bytes);

}  // namespace bench
