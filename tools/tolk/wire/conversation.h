// The messages of both directions of one connection: matches replies with their calls, and makes a
// line of JSON of each frame.
//
// Thread: any, one at a time. Owner: for each direction, keeps the bytes of a frame that is not
// complete, up to FrameCutter::kMostFrameBytes, and the token and method of calls without a reply,
// up to kMostOpenCalls. Failure: std::bad_alloc.
#pragma once

#include <array>
#include <chrono>
#include <deque>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "tools/tolk/text/json.h"
#include "tools/tolk/wire/frame_cutter.h"
#include "tools/tolk/wire/message.h"
#include "tools/tolk/wire/proxy.h"

namespace tolk::tool {

const char* to_string(Direction direction);

// A frame, or bytes that are not a frame.
struct Seen {
  Json line;  // null for further bytes after those that were not a frame
  Direction direction = Direction::to_server;
  std::string_view bytes;  // valid until the callback returns; empty for a frame that is not kept
  bool is_frame = true;
};

class Conversation {
 public:
  static constexpr std::size_t kMostOpenCalls = 10'000;
  using Time = std::chrono::system_clock::time_point;
  using Show = std::function<void(const Seen&)>;

  Conversation(int number, Show show) : number_(number), show_(std::move(show)) {}

  void passed(Direction direction, std::string_view bytes, Time now);
  // Nothing more comes: shows the frames that are not complete.
  void closed(Time now);
  std::uint64_t bytes(Direction direction) const { return way(direction).bytes; }

 private:
  struct OpenCall {
    std::string method;
    Time time;
    std::uint64_t serial = 0;
  };
  // What has come in one direction.
  struct Way {
    FrameCutter cutter;
    std::uint64_t bytes = 0;
    bool lost_shown = false;
    std::unordered_map<std::string, OpenCall> calls;  // by token
    std::deque<std::pair<std::string, std::uint64_t>> oldest;
    std::uint64_t last_serial = 0;
  };

  const Way& way(Direction direction) const { return ways_[static_cast<std::size_t>(direction)]; }
  Way& way(Direction direction) { return ways_[static_cast<std::size_t>(direction)]; }
  Json begin_line(Direction direction, Time now, const char* kind) const;
  void show_frame(Direction direction, const FrameCutter::CutFrame& frame, Time now);
  void show_no_frame(Direction direction, const Flaw& flaw, std::string_view bytes, Time now);
  void remember(Way& from, const Message& call, Time now);
  void answer(Way& to, const Message& reply, Time now, Json& line);

  const int number_;
  const Show show_;
  std::array<Way, 2> ways_;
};

}  // namespace tolk::tool
