// What a sanitizer cannot be tested with.
#pragma once

// The undefined behaviour sanitizer looks at an object through a pipe that it opens. In a process
// without descriptors it takes every object for a wrong one.
#define TOLK_LOOKS_THROUGH_PIPES 0
#ifdef __has_feature
#if __has_feature(undefined_behavior_sanitizer)
#undef TOLK_LOOKS_THROUGH_PIPES
#define TOLK_LOOKS_THROUGH_PIPES 1
#endif
#endif
