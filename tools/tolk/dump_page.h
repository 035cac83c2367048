// Blocks and frames as lines of text for people, in colour where there is colour.
//
// A line begins with an offset, which counts from the start of the input. Of a stream that holds a
// block, that is shown below it.
// Thread: any, one at a time. Owner: the text. Failure: std::bad_alloc.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "tools/tolk/frames.h"
#include "tools/tolk/output.h"

namespace tolk::tool {

class DumpPage {
 public:
  // All that is shown lies in `input`.
  DumpPage(std::string_view input, const Colors& colors) : input_(input), c_(colors) {}

  void frame(std::size_t number, const FrameCutter::Frame& frame);
  void block(std::string_view bytes) { block(read_block(bytes), bytes, 0); }
  void flaw(const Flaw& flaw) { show_flaw(0, flaw.offset, flaw.reason); }

  // The first thing that was found to be wrong.
  const std::optional<Flaw>& first_flaw() const { return first_flaw_; }

  // What was written since the last time.
  std::string take() { return std::exchange(text_, {}); }

 private:
  void block(const Block& block, std::string_view bytes, int depth);
  void record(const Record& record, std::size_t begin, int depth);
  void inside(const Record& record, int depth);
  void show_flaw(int depth, std::uint64_t offset, const std::string& reason);
  void line(int depth, std::uint64_t offset, const std::string& text);
  std::string value(const Record& record) const;
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
