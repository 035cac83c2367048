// Blocks and frames as lines of text for people, with colours if there are any.
//
// A line begins with the offset in the input. If a stream contains a block, the lines of that block
// follow it.
// Thread: any, one at a time. Owner: the text. Failure: std::bad_alloc.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "tools/tolk/text/output.h"
#include "tools/tolk/wire/frame_cutter.h"
#include "tools/tolk/wire/message.h"

namespace tolk::tool {

class DumpPage {
 public:
  // Everything that is shown is a part of `input`.
  DumpPage(std::string_view input, const Colors& colors) : input_(input), c_(colors) {}

  void frame(std::size_t number, const FrameCutter::CutFrame& frame);
  void block(std::string_view bytes) { block(decode_block(bytes), bytes, 0); }
  void flaw(const Flaw& flaw) { show_flaw(0, flaw.offset, flaw.reason); }

  // The first flaw that was found.
  const std::optional<Flaw>& first_flaw() const { return first_flaw_; }

  // The text since the last call.
  std::string take() { return std::exchange(text_, {}); }

 private:
  void block(const DecodedBlock& block, std::string_view bytes, int depth);
  void record(const DecodedRecord& record, std::size_t begin, int depth);
  void inside(const DecodedRecord& record, int depth);
  void show_flaw(int depth, std::uint64_t offset, const std::string& reason);
  void line(int depth, std::uint64_t offset, const std::string& text);
  std::string value(const DecodedRecord& record) const;
  std::string summary(const Message& message) const;
  std::size_t offset_of(std::string_view part) const {
    return static_cast<std::size_t>(part.data() - input_.data());
  }

  const std::string_view input_;
  const Colors c_;
  std::string text_;
  std::optional<Flaw> first_flaw_;
};

}  // namespace tolk::tool
