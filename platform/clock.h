// The millisecond tick that every time-out and every stored result is measured with.
//
// Thread: any. Owner: none. Failure: none.
// Units: milliseconds since some fixed moment, cut to 32 bits: the tick wraps every 49.7 days, so
// compare only differences, computed in unsigned 32-bit arithmetic.
#pragma once

#include <cstdint>

namespace tolk::platform {

std::uint32_t tick_ms();

}  // namespace tolk::platform
