// How many of the cases of a long sweep are run: all, or with TOLK_ONE_OF=N in the environment one
// of N. For valgrind, under which a sweep takes fifty times as long and each of its cases runs the
// same instructions. Thread: any. Failure: a value that is not a positive number counts as 1.
#pragma once

#include <algorithm>
#include <cstdlib>

namespace tolk::test {

inline unsigned one_of() {
  static const unsigned step = [] {
    const char* const text = std::getenv("TOLK_ONE_OF");
    return static_cast<unsigned>(std::max(text != nullptr ? std::atoi(text) : 1, 1));
  }();
  return step;
}

}  // namespace tolk::test
