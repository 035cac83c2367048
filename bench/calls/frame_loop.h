// One thread with a libuv loop that reads and writes whole frames on any number of connections:
// what a program has that does not let its callers touch the sockets.
//
// What waits leaves with one wake-up and, for each connection, one write. A loop that may poll does
// so for about 50 µs after its last work, and needs no wake-up meanwhile.
//
// Thread: add and listen before start; send from any; the callbacks run on the loop thread.
// Owner: the loop owns its connections, and keeps the objects of ended ones. The destructor ends
// the thread first; no work item may run then. Failure: std::runtime_error.
#pragma once

#include <uv.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "bench/calls/frame_format.h"
#include "bench/calls/place.h"
#include "bench/calls/polling.h"

namespace bench {

class FrameLoop {
 public:
  struct Connection;
  // Big payloads come in memory of their own, which the receiver may keep; others are valid during
  // the call.
  using Block = std::unique_ptr<char[]>;
  using OnFrame = std::function<void(Connection& connection, const FrameHeader& header,
                                     std::string_view payload, Block block)>;

  FrameLoop(OnFrame on_frame, bool may_poll);
  ~FrameLoop();
  FrameLoop(const FrameLoop&) = delete;
  FrameLoop& operator=(const FrameLoop&) = delete;

  Connection& add(const Place& place, Socket connected);
  void listen(const Place& place);
  void start();

  // From here on, payloads are big.
  static constexpr std::size_t kBigBytes = 16384;
  // A small payload is copied. A big one is in `block`, or stays valid until the answer is there.
  void send(Connection& connection, const FrameHeader& header, std::string_view payload,
            Block block = nullptr);
  uv_loop_t* loop() { return &loop_; }

 private:
  struct Outgoing {
    Connection* connection;
    FrameHeader header;
    std::string copy;
    std::string_view big;
    Block block;
  };

  void run();
  void poll();
  bool send_queued();
  void write_out(Outgoing& one);
  void flush();
  void close(Connection& connection);
  void accept_one();

  static void give_memory(uv_handle_t* handle, std::size_t suggested, uv_buf_t* memory);
  static void take_bytes(uv_stream_t* stream, ssize_t count, const uv_buf_t* memory);
  void cut(Connection& connection, std::string_view bytes);

  const OnFrame on_frame_;
  Polling polling_;
  uv_loop_t loop_;
  uv_async_t wake_up_;
  std::unique_ptr<Connection> listener_;
  std::list<Connection> connections_;   // loop
  std::vector<Connection*> unwritten_;  // loop: those with bytes in `out`
  std::string read_buffer_;             // loop
  bool worked_ = false;                 // loop: in this turn
  std::atomic<bool> awake_{false};      // polls, and will look at the queue before it sleeps
  std::atomic<bool> ending_{false};

  std::mutex lock_;
  std::condition_variable room_;
  std::vector<Outgoing> queue_;   // under lock_
  std::size_t queued_bytes_ = 0;  // under lock_
  std::thread thread_;
};

}  // namespace bench
