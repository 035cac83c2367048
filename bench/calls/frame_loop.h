// One thread with an event loop that reads and writes whole frames on any number of sockets: what a
// program has that does not let its callers touch the sockets.
//
// Thread: add and send from any; the callback runs on the loop thread.
// Owner: the loop owns its sockets. The destructor ends the thread first.
// Failure: std::system_error from the constructor; a connection that ends is dropped.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "bench/calls/socket.h"

namespace bench {

class FrameLoop {
 public:
  // Whole frames; `payload` is valid during the call.
  using OnFrame = std::function<void(int connection, std::string_view payload)>;

  explicit FrameLoop(OnFrame on_frame);
  ~FrameLoop();
  FrameLoop(const FrameLoop&) = delete;
  FrameLoop& operator=(const FrameLoop&) = delete;

  // Connections are named by their descriptors.
  int add(Socket socket);
  void accept_from(Socket listener);
  void send(int connection, std::string frame);

 private:
  struct Connection {
    Socket socket;
    std::string in;
    std::string out;  // what the system has not taken yet
  };
  struct Outgoing {
    int connection;
    std::string frame;
  };

  void run();
  void watch(int descriptor, unsigned events, bool again = false);
  void wake();
  void send_waiting();
  void write_some(Connection& connection, std::string_view bytes);
  void read_some(int descriptor);
  void hand_on(int descriptor, Connection& connection);
  Connection* find(int descriptor);

  const OnFrame on_frame_;
  Socket poll_;
  Socket wake_up_;
  Socket listener_;
  std::mutex lock_;
  std::vector<Outgoing> line_;             // under lock_
  bool ending_ = false;                    // under lock_
  std::map<int, Connection> connections_;  // entries come and go under lock_
  std::string read_buffer_;                // loop
  std::thread thread_;
};

}  // namespace bench
