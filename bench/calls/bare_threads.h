// The fair floor: a bare socket on each side with the threads that a library of calls needs. The
// caller hands its frame to an event loop's thread and sleeps; the peer's loop thread hands the
// call to a worker thread, and the worker hands the answer back.
#pragma once

#include <memory>
#include <string>

#include "bench/calls/contestant.h"
#include "bench/calls/traffic.h"

namespace bench {

// The callers share `connections` connections, each with a loop thread of its own.
std::unique_ptr<Contestant> threaded_calls(Transport transport, const std::string& name,
                                           std::size_t callers, std::size_t connections,
                                           FrameBytes bytes);
// Hands over `count` frames at once and waits for all the answers.
std::unique_ptr<Contestant> threaded_posts(Transport transport, const std::string& name,
                                           std::size_t count, FrameBytes bytes);

}  // namespace bench
