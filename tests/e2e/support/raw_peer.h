// A peer on plain sockets, without the library: sends and reads frames byte by byte, and can stay
// silent, stop, close and reset.
//
// Thread: each object from one thread at a time; RawServer greets its clients on an internal
// thread. Failure: every read has a deadline; what did not come in time is std::nullopt or false.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "tests/e2e/support/raw_block.h"
#include "tests/e2e/support/raw_channel.h"
#include "tests/e2e/support/transports.h"
#include "tests/e2e/support/waiting.h"

namespace tolk::test {

// One end of an open connection.
class RawSocket {
 public:
  RawSocket() = default;
  explicit RawSocket(std::unique_ptr<RawChannel> channel) : channel_(std::move(channel)) {}

  static RawSocket connect_to(const Address& address);

  bool is_open() const { return channel_ != nullptr; }
  int descriptor() const { return channel_->descriptor(); }

  // All of it; false when the peer is gone or takes nothing for the whole limit.
  bool send(std::string_view bytes, Milliseconds limit = kLimit);
  bool send_frame(std::string_view payload) { return send(frame(payload)); }

  std::optional<std::string> read(std::size_t count, Milliseconds limit = kLimit);
  std::optional<std::string> read_frame(Milliseconds limit = kLimit);  // its payload
  std::optional<Message> read_message(Milliseconds limit = kLimit);
  // What comes until the peer ends the connection; nothing when it does not.
  std::optional<std::string> read_until_end(Milliseconds limit = kLimit);
  bool ended(Milliseconds limit = kLimit) { return read_until_end(limit).has_value(); }
  // Whether nothing comes, and the connection stays.
  bool is_quiet(Milliseconds limit = kQuiet);

  void close() { channel_.reset(); }
  void reset();  // the peer reads an error, on TCP; on a pipe it is a close
  // The peer reads the end, and can still write; on Windows not on a pipe.
  void end_sending() { channel_->end_sending(); }
  // On a pipe the peer's writes fail from now on; not on Windows.
  void end_receiving() { channel_->end_receiving(); }
  void shrink_receive_buffer() { channel_->shrink_receive_buffer(); }

 private:
  std::unique_ptr<RawChannel> channel_;
};

// Listens at an address where a client looks for a server.
class RawListener {
 public:
  explicit RawListener(const Address& address);

  // Closed if no connection came.
  RawSocket accept(Milliseconds limit = kLimit);
  void stop() { acceptor_.reset(); }

 private:
  std::unique_ptr<RawAcceptor> acceptor_;
};

// A client that has shaken hands.
class RawClient {
 public:
  // Without the handshake when `greet` is false.
  explicit RawClient(const Address& address, bool greet = true);

  bool is_greeted() const { return greeted_; }
  // A call and its answer.
  std::optional<Message> call(std::string_view name, int call_id = 1,
                              const std::optional<std::string>& arguments = {},
                              const std::optional<std::string>& token = "0x1");
  // A posted call.
  bool post(std::string_view name, int call_id = 1,
            const std::optional<std::string>& arguments = {});

  RawSocket socket;

 private:
  bool greeted_ = false;
};

// How a RawServer handles a new connection.
using Greeting = std::function<void(RawSocket&)>;
Greeting accepting();   // answers the handshake as a server of the same version does
Greeting refusing();    // says that the version is wrong
Greeting silent();      // says nothing, reads nothing
Greeting hanging_up();  // closes at once
Greeting replying(BlockWriter values);  // answers the handshake with these values

// Greets each new connection on an internal thread, and then passes it to the test.
class RawServer {
 public:
  explicit RawServer(const Address& address, Greeting greeting = accepting());
  ~RawServer() { stop(); }
  RawServer(const RawServer&) = delete;
  RawServer& operator=(const RawServer&) = delete;

  // The next connection that was greeted; closed if none came.
  RawSocket take(Milliseconds limit = kLimit);
  int greeted() const { return greeted_.value(); }
  void stop();  // connections that were not taken are closed with it

 private:
  void serve();

  RawListener listener_;
  const Greeting greeting_;
  Counter greeted_;
  Counter stop_;
  std::mutex mutex_;
  std::condition_variable came_;
  std::deque<RawSocket> connections_;
  std::thread thread_;
};

}  // namespace tolk::test
