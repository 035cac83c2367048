// What a sanitizer cannot be tested with.
#pragma once

// The undefined behaviour sanitizer looks at an object through a pipe that it opens. In a process
// without descriptors it takes every object for a wrong one.
#define TOLK_LOOKS_THROUGH_PIPES 0
// A sanitizer has memory of its own, the address sanitizer 256 MiB that are freed later.
#define TOLK_HAS_MORE_MEMORY 0
// The thread sanitizer ends a child that was forked beside threads when it starts one. In such a
// child, a lock of the address sanitizer's heap may be taken without end.
#define TOLK_CHILDREN_HAVE_THREADS 1
#ifdef __has_feature
#if __has_feature(undefined_behavior_sanitizer)
#undef TOLK_LOOKS_THROUGH_PIPES
#define TOLK_LOOKS_THROUGH_PIPES 1
#endif
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#undef TOLK_HAS_MORE_MEMORY
#define TOLK_HAS_MORE_MEMORY 1
#undef TOLK_CHILDREN_HAVE_THREADS
#define TOLK_CHILDREN_HAVE_THREADS 0
#endif
#endif
