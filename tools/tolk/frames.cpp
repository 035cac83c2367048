#include "tools/tolk/frames.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <utility>

namespace tolk::tool {
namespace {

constexpr std::array<std::string_view, 4> kEnvelope{"s_c_sw_name", "s_c_sw_threadid", "s_c_sw_data",
                                                    "s_c_sw_semid"};
constexpr std::string_view kReply = "retval";
constexpr unsigned kMostTag = 7;

bool is_piece(std::string_view method) {
  return method == "tolk.piece" || method == "s_c_req_body" || method == "s_c_req_header";
}

// As peers read it: what has no bytes counts as the name "".
std::string_view text_of(const Record* record) {
  return record != nullptr && record->has_bytes() ? record->bytes : std::string_view();
}

bool in_envelope(const Record& record) {
  return record.key &&
         std::find(kEnvelope.begin(), kEnvelope.end(), *record.key) != kEnvelope.end();
}

Kind kind_of(const Message& message) {
  if (message.method == kReply) return Kind::reply;
  if (is_piece(message.method)) return Kind::piece;
  return message.token ? Kind::call : Kind::post;
}

}  // namespace

const char* to_string(Kind kind) {
  static constexpr const char* kNames[] = {"call", "post", "reply", "piece", "nameless"};
  return kNames[static_cast<int>(kind)];
}

Message read_message(std::string_view payload) {
  Message message;
  Block whole = read_block(payload);
  const Record* const id = whole.find("s_c_sw_threadid");
  const Record* const token = whole.find("s_c_sw_semid");
  const Record* const name = whole.find("s_c_sw_name");
  message.method = text_of(name);
  if (id != nullptr && id->type == TolkValue::Int) message.call_id = id->integer;
  if (token != nullptr && token->type == TolkValue::String) message.token = token->bytes;
  if (name != nullptr) message.kind = kind_of(message);
  if (message.kind == Kind::reply || message.kind == Kind::nameless) {
    message.method = {};
    message.arguments.records = std::move(whole.records);
    std::erase_if(message.arguments.records, in_envelope);
  } else {
    message.arguments = read_block(text_of(whole.find("s_c_sw_data")));
  }
  if (message.kind == Kind::piece) {
    const std::string_view called = text_of(message.arguments.find("tolk.method"));
    if (!called.empty()) message.method = called;
  }
  message.flaw = std::move(whole.flaw);
  return message;
}

std::string failure_in(const Message& reply) {
  if (reply.kind != Kind::reply) return {};
  const Block& values = reply.arguments;
  if (const Record* const error = values.find("tolk.error")) return std::string(error->bytes);
  if (values.find("tolk.value") != nullptr) return {};
  for (const Record& record : values.records) {
    if (record.key) continue;
    const bool unknown = record.type == TolkValue::String && record.bytes.starts_with("no event: ");
    return unknown ? std::string(record.bytes) : std::string();
  }
  return {};
}

void FrameCutter::add(std::string_view bytes) {
  if (lost_) return;
  const auto skipped = static_cast<std::size_t>(std::min<std::uint64_t>(to_skip_, bytes.size()));
  to_skip_ -= skipped;
  bytes.remove_prefix(skipped);
  waiting_.erase(0, std::exchange(taken_, 0));
  waiting_.append(bytes);
}

std::optional<FrameCutter::Frame> FrameCutter::next() {
  if (lost_) return std::nullopt;
  if (skipping_ != 0) return skip();
  const std::string_view bytes = rest();
  if (bytes.size() < kHeaderBytes) return std::nullopt;
  const auto length = static_cast<std::int32_t>(read_word(bytes));
  if (length < 0) return lose(fmt::format("the length of a frame is {}", length));
  const std::uint64_t size = kHeaderBytes + static_cast<std::uint64_t>(length);
  if (size <= most_) {
    if (bytes.size() < size) return std::nullopt;
    const Frame frame{offset_, size, bytes.substr(0, static_cast<std::size_t>(size))};
    taken_ += frame.bytes.size();
    offset_ += size;
    return frame;
  }
  // So large a frame is looked at before it is waited for: text of another protocol, read as a
  // length, is as large.
  if (bytes.size() == kHeaderBytes) return std::nullopt;
  if (static_cast<unsigned char>(bytes[kHeaderBytes]) > kMostTag) {
    return lose(fmt::format("a frame of {} bytes that begins with no record", length));
  }
  skipping_ = size;
  const std::uint64_t here = std::min<std::uint64_t>(size, bytes.size());
  taken_ += static_cast<std::size_t>(here);
  to_skip_ = size - here;
  return skip();
}

std::optional<FrameCutter::Frame> FrameCutter::skip() {
  if (to_skip_ > 0) return std::nullopt;
  const Frame frame{offset_, std::exchange(skipping_, 0), {}};
  offset_ += frame.size;
  return frame;
}

std::optional<FrameCutter::Frame> FrameCutter::lose(std::string reason) {
  lost_ = Flaw{offset_, std::move(reason)};
  return std::nullopt;
}

std::optional<Flaw> FrameCutter::missing() const {
  if (lost_) return std::nullopt;
  if (skipping_ != 0) {
    return Flaw{offset_,
                fmt::format("a frame of {} bytes, of which {} are missing", skipping_, to_skip_)};
  }
  const std::string_view bytes = rest();
  if (bytes.empty()) return std::nullopt;
  if (bytes.size() < kHeaderBytes) return Flaw{offset_, "the bytes end within a frame's length"};
  const std::uint64_t size = kHeaderBytes + std::uint64_t{read_word(bytes)};
  return Flaw{offset_, fmt::format("a frame of {} bytes, of which {} are missing", size,
                                   size - bytes.size())};
}

}  // namespace tolk::tool
