// How a fuzzer says that two implementations differ: both results go to stderr and the process
// aborts, upon which libFuzzer keeps the input.
// Thread: any; no state.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

namespace tolk::test {

[[noreturn]] inline void finding(const char* what, const std::string& seen,
                                 const std::string& expected) {
  std::fprintf(stderr, "FINDING: %s\n--- the library:\n%s\n--- the naive one:\n%s\n", what,
               seen.c_str(), expected.c_str());
  std::abort();
}

inline void expect_same(const char* what, const std::string& seen, const std::string& expected) {
  if (seen != expected) finding(what, seen, expected);
}

inline void expect(const char* what, bool true_one) {
  if (!true_one) finding(what, "false", "true");
}

}  // namespace tolk::test
