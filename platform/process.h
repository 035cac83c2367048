// Tells whether the threads that serve a session can still exist.
//
// A forked child has a copy of every session, and none of the threads that serve it. On Windows the
// same is true at the end of a process: the system ends all other threads before it tells the
// libraries. An object stores the generation in which it was made. When the generation is another
// one, the threads of the object do not exist any more.
//
// Thread: any. Owner: none. Failure: none. Cost: one or two loads, no system call.
#pragma once

#include <cstdint>

namespace tolk::platform {

// A number that stays the same for as long as the process has its threads. It is another number in
// each forked child and, on Windows, at the end of the process.
std::uint32_t generation();

}  // namespace tolk::platform
