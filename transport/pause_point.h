// Named steps at which a test can hold the thread that gets there.
//
// Only the copy of the library that tests of single steps link is compiled with TOLK_PAUSE_POINTS;
// in the product a point is nothing. Points are in the primitives (post, drain, list, store, change
// of phase), in .cpp files, and never where a leaf lock is held: other threads must be able to go
// on while one is held. Thread: any. Failure: none.
#pragma once

#if defined(TOLK_PAUSE_POINTS)

namespace tolk {

// Defined by the test program: returns when the test lets the thread go on.
void pause_point(const char* name);
// The same for "KIND.WHEN.PHASE", such as "client.before.live".
void pause_at_phase(const char* kind, const char* when, int phase);

}  // namespace tolk

#define TOLK_PAUSE_POINT(name) ::tolk::pause_point(name)
#define TOLK_PAUSE_AT_PHASE(kind, when, phase) \
  ::tolk::pause_at_phase(kind, when, static_cast<int>(phase))

#else

#define TOLK_PAUSE_POINT(name) static_cast<void>(0)
#define TOLK_PAUSE_AT_PHASE(kind, when, phase) static_cast<void>(0)

#endif
