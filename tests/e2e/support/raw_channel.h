// A connection without the library, as the system has it: bytes and no frames. RawSocket and
// RawListener are made of it.
//
// Thread: one at a time. Owner: the holder of the pointer; the destructor closes the connection.
// Failure: null where nobody listens or nothing came in time.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "tests/e2e/support/transports.h"
#include "tests/e2e/support/waiting.h"

namespace tolk::test {

class RawChannel {
 public:
  virtual ~RawChannel() = default;

  // How many bytes came, up to `most`; 0 when the connection has ended; nothing when none came.
  virtual std::optional<std::size_t> read_some(char* to, std::size_t most, Milliseconds limit) = 0;
  // How many bytes went; 0 when the connection is broken; nothing when none were taken.
  virtual std::optional<std::size_t> write_some(std::string_view bytes, Milliseconds limit) = 0;
  // Whether something is there to be read, if only the end.
  virtual bool is_readable(Milliseconds limit) = 0;

  // For POSIX tests that wait for several; -1 where a channel has no descriptor.
  virtual int descriptor() const { return -1; }
  // Operations that a system does not have do nothing.
  virtual void close_with_reset() {}
  virtual void end_sending() {}
  virtual void end_receiving() {}
  virtual void shrink_receive_buffer() {}
};

// A listener; its address is free again when it is destroyed.
class RawAcceptor {
 public:
  virtual ~RawAcceptor() = default;
  virtual std::unique_ptr<RawChannel> accept(Milliseconds limit) = 0;
};

std::unique_ptr<RawChannel> open_channel(const Address& address);
std::unique_ptr<RawAcceptor> open_acceptor(const Address& address);

// The same for a local pipe: a file of pipe_channel_posix.cpp or pipe_channel_windows.cpp.
std::unique_ptr<RawChannel> open_pipe_channel(const std::string& name);
std::unique_ptr<RawAcceptor> open_pipe_acceptor(const std::string& name);
// The path of a pipe of that name, computed without the library.
std::string pipe_path(const std::string& name);

}  // namespace tolk::test
