// The lines that the library prints go nowhere.
// Thread: before the library is used.
#pragma once

#include <iostream>
#include <streambuf>

namespace tolk::test {

class Silence final : public std::streambuf {
  int overflow(int character) override { return character; }
  std::streamsize xsputn(const char*, std::streamsize count) override { return count; }
};

inline void silence_standard_output() {
  std::ios_base::sync_with_stdio(false);
  static Silence silence;
  std::cout.rdbuf(&silence);
}

}  // namespace tolk::test
