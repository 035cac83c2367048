// A connection through the proxy: the end of the client, the end of the server, and the bytes
// between them. Only the proxy uses it.
//
// Thread: that of the loop. Owner: the proxy, until `finished`; both handles are closed by then.
// Failure: the watcher learns how the connection ended.
#pragma once

#include <uv.h>

#include <functional>
#include <string>

#include "tools/tolk/wire/proxy.h"

namespace tolk::tool {

// What a connection needs of the proxy.
class ConnectionOwner {
 public:
  virtual ~ConnectionOwner() = default;
  virtual ProxyWatcher& watcher() = 0;
  virtual uv_loop_t* loop() = 0;
  // The memory for a read. Its bytes are passed on before the next read.
  virtual uv_buf_t read_buffer() = 0;
  // Runs a step and keeps its exception: no exception may pass through libuv.
  virtual void guarded(const std::function<void()>& step) noexcept = 0;
  // The connection may be destroyed.
  virtual void finished(int number) = 0;
};

// The parts of a socket address, numeric.
HostAndPort host_and_port_from(const sockaddr_storage& address);
sockaddr_storage socket_address(const ProxyAddress& address);

class ProxiedConnection {
 public:
  ProxiedConnection(ConnectionOwner& owner, int number, const ProxyAddress& from,
                    const ProxyAddress& to);
  ProxiedConnection(const ProxiedConnection&) = delete;
  ProxiedConnection& operator=(const ProxiedConnection&) = delete;

  // Accepts the next client of `listener` and connects to the server.
  void begin(uv_stream_t* listener);
  // Closes both ends at once. May be called again.
  void close();

 private:
  struct End {
    uv_any_handle handle{};
    uv_shutdown_t shutdown{};
    ProxiedConnection* connection = nullptr;
    Direction direction = Direction::to_server;  // of the bytes that are read from it
    bool open = false;
    bool ended = false;          // nothing more is read from it
    bool paused = false;         // not read, because enough bytes wait for the other end
    bool shut = false;           // all bytes are written, and the end of sending
    bool write_failed = false;   // it accepts no more bytes
    bool reset_at_last = false;  // it is reset after the waiting bytes are written

    uv_stream_t* stream() { return &handle.stream; }
    std::size_t waiting_bytes() const { return uv_stream_get_write_queue_size(&handle.stream); }
  };
  struct Write;

  void open(End& end, Transport transport);
  void connect();
  void connected(int status);
  void read_from(End& end);
  void take(End& end, std::string_view bytes);
  void send(End& end, std::string_view bytes);
  void written(End& end, int status);
  void end_of(End& end);
  void broken(End& end, int error);
  void give_up_writing(End& end);
  void reset(End& end);
  void close(End& end);
  static void handle_closed(uv_handle_t* handle);
  void finish_if_done();

  HostAndPort client_address() const;
  HostAndPort server_address() const;
  End& other(End& end) { return &end == &client_ ? server_ : client_; }
  const char* name_of(const End& end) const { return &end == &client_ ? "client" : "server"; }

  ConnectionOwner& owner_;
  const int number_;
  const ProxyAddress from_;
  const ProxyAddress to_;
  End client_;
  End server_;
  uv_connect_t connect_{};
  std::string how_;  // why the connection ends; empty for a proper end
  int handles_ = 0;  // those that are not closed yet
};

}  // namespace tolk::tool
