// What the tests expect to be different on Windows. docs/platforms.md gives the reasons.
#pragma once

#include <algorithm>

namespace tolk::test {

#if defined(_WIN32)
inline constexpr bool kOnWindows = true;
#else
inline constexpr bool kOnWindows = false;
#endif

// Whether the close of a pipe is an error for its other end if something was left unread.
inline constexpr bool kPipesCanBeReset = !kOnWindows;

// The number of rounds of a test with many rounds. Windows takes 2 s to refuse a connect to a port
// where nobody listens, and under Wine each round takes many times longer.
constexpr int rounds(int many) { return kOnWindows ? std::max(many / 100, 8) : many; }

// The system's own pool of threads comes and goes, and its handles with it.
inline constexpr int kThreadsOfTheSystem = kOnWindows ? 4 : 0;

// False under Wine, where a second server may take a pipe's name.
bool pipe_names_are_exclusive();

}  // namespace tolk::test
