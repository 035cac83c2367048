// One client's connection through the proxy: the client's end, the server's end, and the bytes
// between them. Only the proxy uses it.
//
// Thread: that of the loop. Owner: the proxy, until `finished`; both handles are closed by then.
#pragma once

#include <uv.h>

#include <functional>
#include <string>

#include "tools/tolk/proxy.h"

namespace tolk::tool {

// Who has the passages.
class PassageOwner {
 public:
  virtual ~PassageOwner() = default;
  virtual ProxyWatcher& watcher() = 0;
  virtual uv_loop_t* loop() = 0;
  // Where reads go to; used up before the next read.
  virtual uv_buf_t read_buffer() = 0;
  // Runs a step and keeps what it throws: nothing may be thrown through libuv.
  virtual void guarded(const std::function<void()>& step) noexcept = 0;
  // The passage may be destroyed.
  virtual void finished(int number) = 0;
};

// The parts of a socket address, numeric.
Endpoint endpoint_from(const sockaddr_storage& address);
sockaddr_storage socket_address(const Address& address);

class Passage {
 public:
  Passage(PassageOwner& owner, int number, const Address& from, const Address& to);
  Passage(const Passage&) = delete;
  Passage& operator=(const Passage&) = delete;

  // Takes the next client of `listener` and connects to the server.
  void begin(uv_stream_t* listener);
  // Closes both ends at once. Also while it closes already.
  void close();

 private:
  struct End {
    uv_any_handle handle{};
    uv_shutdown_t shutdown{};
    Passage* passage = nullptr;
    Direction direction = Direction::to_server;  // of what is read here
    bool open = false;
    bool ended = false;          // nothing more is read here
    bool paused = false;         // not read, as the other end has enough waiting
    bool shut = false;           // what there was has been written, and the end of it
    bool write_failed = false;   // it takes nothing any more
    bool reset_at_last = false;  // it is reset once all that waits is written

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

  Endpoint client_endpoint() const;
  Endpoint server_endpoint() const;
  End& other(End& end) { return &end == &client_ ? server_ : client_; }
  const char* name_of(const End& end) const { return &end == &client_ ? "client" : "server"; }

  PassageOwner& owner_;
  const int number_;
  const Address from_;
  const Address to_;
  End client_;
  End server_;
  uv_connect_t connect_{};
  std::string how_;  // it ended
  int handles_ = 0;  // that are not closed yet
};

}  // namespace tolk::tool
