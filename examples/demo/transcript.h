// The transcript for the reader: each call with its caller, its peer and its outcome.
//
// Thread: one. Owner: values; writes to standard output. Failure: none.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "report.h"

namespace demo {

class Transcript {
 public:
  Transcript();

  void title(const std::string& text);
  void part(const std::string& text);
  void step(const Event& event);
  // The lines that the library printed in a process, or the same lines in several.
  void library_lines(const std::string& who, const std::vector<std::string>& lines);
  void problem(const std::string& text);
  void progress(std::uint64_t moved, std::uint64_t total);
  void progress_done();
  void verdict(std::int64_t milliseconds);

  bool all_right() const { return wrong_ == 0; }
  bool shows_progress() const { return terminal_; }

 private:
  std::string painted(const char* color, const std::string& text) const;
  std::string actor(const std::string& name, std::size_t width) const;

  bool terminal_ = false;
  bool colors_ = false;
  int checks_ = 0;
  int wrong_ = 0;
};

}  // namespace demo
