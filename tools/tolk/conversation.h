// Both directions of one connection as messages: which reply belongs to which call, and the line of
// JSON that a frame is.
//
// Thread: any, one at a time. Owner: keeps the bytes of frames that have not come whole, up to
// FrameCutter::kMostFrameBytes a direction, and of each call without a reply its token and method,
// up to kMostOpenCalls a direction. Failure: std::bad_alloc.
#pragma once

#include <array>
#include <chrono>
#include <deque>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "tools/tolk/frames.h"
#include "tools/tolk/json_text.h"
#include "tools/tolk/proxy.h"

namespace tolk::tool {

const char* to_string(Direction direction);

// What was found on its way.
struct Seen {
  Json line;  // nothing for further bytes of what is no frames
  Direction direction = Direction::to_server;
  std::string_view bytes;  // of the frame, or of what is none; valid as long as the callback runs
  bool is_frame = true;
};

class Conversation {
 public:
  static constexpr std::size_t kMostOpenCalls = 10'000;
  using Time = std::chrono::system_clock::time_point;
  using Show = std::function<void(const Seen&)>;

  Conversation(int number, Show show) : number_(number), show_(std::move(show)) {}

  void passed(Direction direction, std::string_view bytes, Time now);
  // Nothing more comes: frames that are not whole are told.
  void closed(Time now);
  std::uint64_t bytes(Direction direction) const { return way(direction).bytes; }

 private:
  struct OpenCall {
    std::string method;
    Time time;
    std::uint64_t serial = 0;
  };
  // What came in one direction.
  struct Way {
    FrameCutter cutter;
    std::uint64_t bytes = 0;
    bool lost_told = false;
    std::unordered_map<std::string, OpenCall> calls;  // by token
    std::deque<std::pair<std::string, std::uint64_t>> oldest;
    std::uint64_t last_serial = 0;
  };

  const Way& way(Direction direction) const { return ways_[static_cast<std::size_t>(direction)]; }
  Way& way(Direction direction) { return ways_[static_cast<std::size_t>(direction)]; }
  Json begin_line(Direction direction, Time now, const char* kind) const;
  void show_frame(Direction direction, const FrameCutter::Frame& frame, Time now);
  void show_none(Direction direction, const Flaw& flaw, std::string_view bytes, Time now);
  void remember(Way& from, const Message& call, Time now);
  void answer(Way& to, const Message& reply, Time now, Json& line);

  const int number_;
  const Show show_;
  std::array<Way, 2> ways_;
};

}  // namespace tolk::tool
