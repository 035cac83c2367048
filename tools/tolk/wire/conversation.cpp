#include "tools/tolk/wire/conversation.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <cmath>
#include <utility>

#include "tools/tolk/text/record_json.h"

namespace tolk::tool {
namespace {

using std::chrono::duration_cast;
using std::chrono::microseconds;

std::string text_of_time(Conversation::Time time) {
  const auto since = duration_cast<microseconds>(time.time_since_epoch());
  return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:06}Z",
                     fmt::gmtime(std::chrono::system_clock::to_time_t(time)),
                     since.count() % 1'000'000);
}

double milliseconds_between(Conversation::Time from, Conversation::Time to) {
  return static_cast<double>(duration_cast<microseconds>(to - from).count()) / 1000;
}

Direction opposite(Direction direction) {
  return direction == Direction::to_server ? Direction::to_client : Direction::to_server;
}

}  // namespace

const char* to_string(Direction direction) {
  return direction == Direction::to_server ? "to server" : "to client";
}

void Conversation::passed(Direction direction, std::string_view bytes, Time now) {
  Way& from = way(direction);
  from.bytes += bytes.size();
  if (from.lost_shown) {
    // After bytes that are not frames, all further bytes go to the capture as they are.
    show_({nullptr, direction, bytes, false});
    return;
  }
  from.cutter.add(bytes);
  while (const auto frame = from.cutter.next()) show_frame(direction, *frame, now);
  if (!from.cutter.lost()) return;
  from.lost_shown = true;
  show_no_frame(direction, *from.cutter.lost(), from.cutter.rest(), now);
}

void Conversation::closed(Time now) {
  for (const Direction direction : {Direction::to_server, Direction::to_client}) {
    const FrameCutter& cutter = way(direction).cutter;
    if (const auto missing = cutter.missing()) {
      show_no_frame(direction, *missing, cutter.rest(), now);
    }
  }
}

Json Conversation::begin_line(Direction direction, Time now, const char* kind) const {
  return {{"time", text_of_time(now)},
          {"connection", number_},
          {"direction", to_string(direction)},
          {"kind", kind}};
}

void Conversation::show_frame(Direction direction, const FrameCutter::CutFrame& frame, Time now) {
  if (!frame.kept()) {
    Json line = begin_line(direction, now, "large");
    line["bytes"] = frame.size;
    show_({std::move(line), direction, {}, true});
    return;
  }
  const Message message = decode_message(frame.payload());
  Json line = begin_line(direction, now, to_string(message.kind));
  if (message.kind == Kind::reply) {
    answer(way(opposite(direction)), message, now, line);
  } else if (message.kind != Kind::nameless) {
    line["method"] = text_to_json(message.method);
    if (message.token) remember(way(direction), message, now);
  }
  add_content(line, message);
  line["bytes"] = frame.size;
  show_({std::move(line), direction, frame.bytes, true});
}

void Conversation::show_no_frame(Direction direction, const Flaw& flaw, std::string_view bytes,
                                 Time now) {
  Json line = begin_line(direction, now, "no frame");
  line["offset"] = flaw.offset;
  line["reason"] = flaw.reason;
  show_({std::move(line), direction, bytes, false});
}

// A peer may never answer some calls, so the oldest ones are forgotten.
void Conversation::remember(Way& from, const Message& call, Time now) {
  const std::uint64_t serial = ++from.last_serial;
  std::string token(*call.token);
  from.calls[token] = {std::string(call.method), now, serial};
  from.oldest.emplace_back(std::move(token), serial);
  if (from.oldest.size() <= kMostOpenCalls) return;
  const auto& [old_token, old_serial] = from.oldest.front();
  const auto old = from.calls.find(old_token);
  if (old != from.calls.end() && old->second.serial == old_serial) from.calls.erase(old);
  from.oldest.pop_front();
}

// A reply does not name its method; the call with the same token does.
void Conversation::answer(Way& to, const Message& reply, Time now, Json& line) {
  if (!reply.token) return;
  const auto call = to.calls.find(std::string(*reply.token));
  if (call == to.calls.end()) return;
  line["method"] = text_to_json(call->second.method);
  line["ms"] = milliseconds_between(call->second.time, now);
  to.calls.erase(call);
}

}  // namespace tolk::tool
