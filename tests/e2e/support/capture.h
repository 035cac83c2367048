// What the library writes to standard output, collected.
//
// One stream buffer of the tests stays in std::cout for the whole life of the test process (see
// environment.cpp), so that nothing is exchanged under a loop thread that may still be writing.
// Outside of any Capture it drops what it gets: the test program itself prints through stdio.
// Thread: any. One Capture at a time.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tests/e2e/support/waiting.h"

namespace tolk::test {

class Capture {
 public:
  Capture();   // starts empty
  ~Capture();  // and ends collecting
  Capture(const Capture&) = delete;
  Capture& operator=(const Capture&) = delete;

  std::string text() const;
  // Without line ends; includes an unfinished last line.
  std::vector<std::string> lines() const;
  void clear();

  int count(std::string_view line) const;  // lines that are exactly this
  // Until there is such a line, or `times` of them.
  bool wait_for_line(std::string_view line, Milliseconds limit = kLimit) const;
  bool wait_for_lines(std::string_view line, int times, Milliseconds limit = kLimit) const;
  // Until the whole text is this.
  bool wait_for_text(std::string_view text, Milliseconds limit = kLimit) const;
  // The first line that starts so, waited for; "" when it never came.
  std::string line_starting(std::string_view start, Milliseconds limit = kLimit) const;
};

}  // namespace tolk::test
