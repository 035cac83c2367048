// Cuts raw bytes into frames, and reads the message in a frame's payload.
//
// Thread: any, one at a time. Owner: texts of a Message point into the payload that was read.
// Failure: a Flaw that says which byte and why; std::bad_alloc.
#pragma once

#include "tools/tolk/block.h"

namespace tolk::tool {

// What a message is for. A piece is a call that carries a part of large data.
enum class Kind { call, post, reply, piece, nameless };

const char* to_string(Kind kind);

struct Message {
  Kind kind = Kind::nameless;
  std::string_view method;  // of a piece the method that is called in pieces, where it says so
  std::optional<int> call_id;
  std::optional<std::string_view> token;
  Block arguments;           // the nested block of a call; of a reply, what is not its envelope
  std::optional<Flaw> flaw;  // of the payload; offsets count from its first byte
};

Message read_message(std::string_view payload);

// Why a reply says that its call failed; empty when it does not.
std::string failure_in(const Message& reply);

// Cuts one direction of a connection into frames.
//
// A frame above kMostFrameBytes is counted and not kept. At a length that can be none it stops for
// good: where the next frame would begin is not known then.
class FrameCutter {
 public:
  static constexpr std::size_t kHeaderBytes = 4;
  static constexpr std::size_t kMostFrameBytes = std::size_t{16} << 20;

  struct Frame {
    std::uint64_t offset = 0;  // of its first byte, in the stream
    std::uint64_t size = 0;    // with its header
    std::string_view bytes;    // with its header; valid until the next `add`; empty if not kept

    std::string_view payload() const { return bytes.empty() ? bytes : bytes.substr(kHeaderBytes); }
    bool kept() const { return !bytes.empty(); }
  };

  explicit FrameCutter(std::size_t most_frame_bytes = kMostFrameBytes) : most_(most_frame_bytes) {}

  void add(std::string_view bytes);
  // The next whole frame, if there is one.
  std::optional<Frame> next();

  // Set once the bytes have turned out to be no frames. Further bytes are not looked at.
  const std::optional<Flaw>& lost() const { return lost_; }
  // If nothing more comes: what is missing of the last frame, or nothing when it was whole.
  std::optional<Flaw> missing() const;
  // Bytes that have come and are no part of a whole frame.
  std::string_view rest() const { return std::string_view(waiting_).substr(taken_); }

 private:
  std::optional<Frame> skip();
  std::optional<Frame> lose(std::string reason);

  const std::size_t most_;
  std::string waiting_;
  std::size_t taken_ = 0;       // of waiting_, by frames that were handed out
  std::uint64_t offset_ = 0;    // in the stream, of the byte at taken_
  std::uint64_t skipping_ = 0;  // the size of a frame that is not kept, while it comes
  std::uint64_t to_skip_ = 0;   // what is still to come of it
  std::optional<Flaw> lost_;
};

}  // namespace tolk::tool
