// What the process holds: descriptors (on Windows handles), threads, loops, memory. For tests of
// leaks.
#pragma once

#include "tests/e2e/support/system.h"

namespace tolk::test {

int open_descriptors();
int threads();
int open_loops();  // each has one epoll descriptor, or one completion port
long resident_kib();

// The most that there may be later if nothing leaks from now on.
inline int most_descriptors() { return open_descriptors() + kThreadsOfTheSystem; }
inline int most_threads() { return threads() + kThreadsOfTheSystem; }

// What a leak checker holds back of memory that is free, at most.
long held_back_kib();

// Whether a call that the calling thread makes without naming an id has this one: the low half of
// libuv's handle of the thread.
bool is_own_call_id(int id);

// Unlike that of every other test process that runs now, as far as the system can tell.
int process_number();

}  // namespace tolk::test
