// One accepted client of a server.
//
// Thread: loop. Owner: the session keeps every connection until its own end, closed ones too: an
// address, and so a client id, never comes back during a server's life.
#pragma once

#include <uv.h>

#include <cstdint>
#include <memory>

#include "transport/frame_reader.h"

namespace tolk {

class ServerSession;

struct Connection {
  explicit Connection(ServerSession& owner)
      : session(owner), reader(std::make_unique<FrameReader>()) {
    handle.data = this;
  }

  // The client's only name: the low 32 bits of the handle's address.
  int id() const {
    return static_cast<int>(static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(&stream)));
  }

  union {
    uv_handle_t handle;
    uv_stream_t stream;
    uv_pipe_t pipe;
    uv_tcp_t tcp{};
  };
  ServerSession& session;
  std::unique_ptr<FrameReader> reader;  // gone when the connection has ended
  bool active = false;                  // has sent something
};

}  // namespace tolk
