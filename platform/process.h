// Tells whether the threads that served a session can still be there.
//
// A forked child has a copy of every session but none of the threads that serve it. On Windows the
// same holds in a process that ends, from when its libraries are told so: the system has ended all
// other threads by then. What remembers the generation that it was made in recognises that it has
// no life there.
//
// Thread: any. Owner: none. Failure: none. Cost: a load or two, no system call.
#pragma once

#include <cstdint>

namespace tolk::platform {

// A number that is the same for as long as a process has its threads, and another one in each child
// that it forks or, on Windows, at the process's end.
std::uint32_t generation();

}  // namespace tolk::platform
