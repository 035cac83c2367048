// A proxy between clients and a server on loopback that treats bytes and connections badly: it
// splits and delays what it passes on, connects in another order than it was connected to, and ends
// connections by half-closing, closing or resetting them in the middle.
//
// Thread: an internal one; the figures may be read from any thread.
// Owner: the object; connections end with it.
#pragma once

#include <atomic>
#include <chrono>
#include <deque>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/e2e/support/transports.h"
#include "tests/stress/frame/run.h"
#include "tests/stress/frame_cuts.h"

namespace tolk::stress {

class ByteProxy {
 public:
  struct Figures {
    std::atomic<int> connections{0};
    std::atomic<int> reordered{0};
    std::atomic<int> half_closed{0};
    std::atomic<int> closed{0};
    std::atomic<int> reset{0};
    std::atomic<long> bytes{0};
    std::atomic<long> pieces{0};
  };

  ByteProxy(const test::Address& target, Random random);
  ~ByteProxy();
  ByteProxy(const ByteProxy&) = delete;
  ByteProxy& operator=(const ByteProxy&) = delete;

  const test::Address& address() const { return address_; }
  const Figures& figures() const { return figures_; }

 private:
  using Clock = std::chrono::steady_clock;
  enum class End { by_peers, half_close, close, reset };

  struct Piece {
    std::string bytes;
    Clock::time_point due;
  };
  struct Direction {
    int from = -1;
    int to = -1;
    std::deque<Piece> pieces;
    FrameCuts cuts;
    bool ended = false;    // nothing more comes from there
    bool shut = false;     // and that was passed on
    bool dropped = false;  // what still comes is thrown away
  };
  struct Link {
    Direction there;
    Direction back;
    int largest_piece = 1;
    int pieces = 0;
    int longest_delay_us = 0;
    End end = End::by_peers;
    long bytes_until_end = 0;
  };

  void run();
  void accept_one();
  void connect_waiting();
  std::unique_ptr<Link> new_link(int client);
  void read_some(Link& link, Direction& direction);
  int next_piece_size(Link& link);
  bool write_due(Link& link, Direction& direction);
  bool count_down(Link& link, long bytes);
  void close_link(Link& link, bool with_reset);
  void wait_for_work();

  const test::Address target_;
  const test::Address address_;
  Random random_;
  Figures figures_;
  int listener_ = -1;
  std::vector<int> waiting_;
  Clock::time_point waiting_since_;
  std::vector<std::unique_ptr<Link>> links_;
  std::atomic<bool> done_{false};
  std::thread thread_;
};

}  // namespace tolk::stress
