// Connections to the library's own servers, without a client's threads.
#pragma once

#include <cstddef>
#include <vector>

#include "bench/calls/place.h"

namespace bench {

// They have passed the version check, as clients do; so many clients are too many threads.
std::vector<Socket> greeted_connections(const Place& place, std::size_t count);

}  // namespace bench
