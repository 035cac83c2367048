// Cuts the bytes of one direction of a connection into frames.
//
// A frame above kMostFrameBytes is counted and not kept. After a length that is impossible nothing
// more is cut: where the next frame begins is not known then.
//
// Thread: any, one at a time. Owner: keeps the bytes of a frame that is not complete.
// Failure: a Flaw that says which byte is wrong and why; std::bad_alloc.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "tools/tolk/wire/decoded_block.h"

namespace tolk::tool {

class FrameCutter {
 public:
  static constexpr std::size_t kHeaderBytes = 4;
  static constexpr std::size_t kMostFrameBytes = std::size_t{16} << 20;

  struct CutFrame {
    std::uint64_t offset = 0;  // of its first byte, in the stream
    std::uint64_t size = 0;    // with its header
    std::string_view bytes;    // with its header; valid until the next `add`; empty if not kept

    std::string_view payload() const { return bytes.empty() ? bytes : bytes.substr(kHeaderBytes); }
    bool kept() const { return !bytes.empty(); }
  };

  explicit FrameCutter(std::size_t most_frame_bytes = kMostFrameBytes) : most_(most_frame_bytes) {}

  void add(std::string_view bytes);
  // The next complete frame, if there is one.
  std::optional<CutFrame> next();

  // Set once the bytes turn out not to be frames. Further bytes are ignored.
  const std::optional<Flaw>& lost() const { return lost_; }
  // What is missing of the last frame, if nothing more comes. Nothing when the frame is complete.
  std::optional<Flaw> missing() const;
  // The bytes after the last complete frame.
  std::string_view rest() const { return std::string_view(waiting_).substr(taken_); }

 private:
  std::optional<CutFrame> skip();
  std::optional<CutFrame> lose(std::string reason);

  const std::size_t most_;
  std::string waiting_;
  std::size_t taken_ = 0;       // of waiting_, by frames that next() has returned
  std::uint64_t offset_ = 0;    // in the stream, of the byte at taken_
  std::uint64_t skipping_ = 0;  // the size of the frame that is being skipped
  std::uint64_t to_skip_ = 0;   // how many of its bytes are still to come
  std::optional<Flaw> lost_;
};

}  // namespace tolk::tool
