// Named steps of calls, closes and stops at which a test can hold the thread that gets there.
//
// Only the copy of the library that tests of single steps link is compiled with TOLK_PAUSE_POINTS;
// in the product a point is nothing. Points stand in .cpp files, never in headers, and never where
// a leaf lock is held: other threads must be able to go on while one is held up.
// Thread: any. Failure: none.
#pragma once

#if defined(TOLK_PAUSE_POINTS)

namespace tolk {

// Defined by the test program: returns when the test lets the thread go on.
void pause_point(const char* name);

}  // namespace tolk

#define TOLK_PAUSE_POINT(name) ::tolk::pause_point(name)

#else

#define TOLK_PAUSE_POINT(name) static_cast<void>(0)

#endif
