#include "bench/calls/traffic.h"

#include <tolk/TolkParams.h>

#include <cstring>

namespace bench {
namespace {

constexpr std::size_t kPrefixBytes = 4;

// What the library adds to a message. Only the sizes matter here.
std::size_t message_bytes(TolkParams& block, const char* name, TolkParams* arguments,
                          bool has_waiter) {
  block.AddKeyValueString("s_c_sw_name", name);
  block.AddKeyValueInt("s_c_sw_threadid", 1);
  if (arguments != nullptr) {
    block.AddKeyValueStream("s_c_sw_data", arguments->GetParamasPtr(), arguments->GetParamasSize());
  }
  if (has_waiter) block.AddKeyValueString("s_c_sw_semid", "0x7f0123456789");
  return kPrefixBytes + static_cast<std::size_t>(block.GetParamasSize());
}

std::size_t call_bytes(const char* name, std::size_t payload, bool has_waiter) {
  TolkParams arguments;
  const std::string bytes(payload, '\0');
  arguments.AddStream(bytes.data(), static_cast<long>(payload));
  TolkParams call;
  return message_bytes(call, name, payload == 0 ? nullptr : &arguments, has_waiter);
}

std::size_t reply_bytes(TolkParams& result, bool has_waiter) {
  return message_bytes(result, "retval", nullptr, has_waiter);
}

}  // namespace

FrameBytes echo_frames(std::size_t payload) {
  TolkParams result;
  const std::string bytes(payload, '\0');
  if (payload != 0) result.AddStream(bytes.data(), static_cast<long>(payload));
  return {call_bytes("echo", payload, true), reply_bytes(result, true)};
}

FrameBytes posted_frames(std::size_t payload) {
  TolkParams result;
  return {call_bytes("note", payload, false), reply_bytes(result, false)};
}

FrameBytes length_frames(std::size_t payload) {
  TolkParams result;
  result.AddInt(1);
  return {call_bytes("length", payload, true), reply_bytes(result, true)};
}

std::string make_frame(std::size_t bytes) {
  std::string frame(bytes, 'x');
  const std::size_t payload = bytes - kPrefixBytes;
  for (std::size_t i = 0; i < kPrefixBytes; ++i) frame[i] = static_cast<char>(payload >> (8 * i));
  return frame;
}

void put_mark(std::string& frame, const Mark& mark) {
  std::memcpy(frame.data() + kPrefixBytes, &mark, sizeof mark);
}

Mark mark_of(std::string_view payload) {
  Mark mark;
  if (payload.size() >= sizeof mark) std::memcpy(&mark, payload.data(), sizeof mark);
  return mark;
}

std::size_t frame_bytes(std::string_view bytes) {
  if (bytes.size() < kPrefixBytes) return 0;
  std::size_t length = 0;
  for (std::size_t i = 0; i < kPrefixBytes; ++i) {
    length |= std::size_t{static_cast<unsigned char>(bytes[i])} << (8 * i);
  }
  return length + kPrefixBytes;
}

}  // namespace bench
