#include "tools/tolk/wire/frame_cutter.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "params/record.h"

namespace tolk::tool {

void FrameCutter::add(std::string_view bytes) {
  if (lost_) return;
  const auto skipped = static_cast<std::size_t>(std::min<std::uint64_t>(to_skip_, bytes.size()));
  to_skip_ -= skipped;
  bytes.remove_prefix(skipped);
  waiting_.erase(0, std::exchange(taken_, 0));
  waiting_.append(bytes);
}

std::optional<FrameCutter::CutFrame> FrameCutter::next() {
  if (lost_) return std::nullopt;
  if (skipping_ != 0) return skip();
  const std::string_view bytes = rest();
  if (bytes.size() < kHeaderBytes) return std::nullopt;
  const auto length = load_int(bytes.data());
  if (length < 0) return lose(fmt::format("the length of a frame is {}", length));
  const std::uint64_t size = kHeaderBytes + static_cast<std::uint64_t>(length);
  if (size <= most_) {
    if (bytes.size() < size) return std::nullopt;
    const CutFrame frame{offset_, size, bytes.substr(0, static_cast<std::size_t>(size))};
    taken_ += frame.bytes.size();
    offset_ += size;
    return frame;
  }
  // The first byte of such a large frame is checked before its other bytes are awaited: the text of
  // another protocol, read as a length, gives as large a number.
  if (bytes.size() == kHeaderBytes) return std::nullopt;
  if (static_cast<unsigned char>(bytes[kHeaderBytes]) > static_cast<unsigned char>(Tag::Map)) {
    return lose(fmt::format("a frame of {} bytes that does not begin with a record", length));
  }
  skipping_ = size;
  const std::uint64_t here = std::min<std::uint64_t>(size, bytes.size());
  taken_ += static_cast<std::size_t>(here);
  to_skip_ = size - here;
  return skip();
}

std::optional<FrameCutter::CutFrame> FrameCutter::skip() {
  if (to_skip_ > 0) return std::nullopt;
  const CutFrame frame{offset_, std::exchange(skipping_, 0), {}};
  offset_ += frame.size;
  return frame;
}

std::optional<FrameCutter::CutFrame> FrameCutter::lose(std::string reason) {
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
  const std::uint64_t size = kHeaderBytes + std::uint64_t{load32(bytes.data())};
  return Flaw{offset_, fmt::format("a frame of {} bytes, of which {} are missing", size,
                                   size - bytes.size())};
}

}  // namespace tolk::tool
