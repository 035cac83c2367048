// The millisecond tick by which every timeout and the age of every stored result is measured.
//
// Thread: any. Owner: none. Failure: none.
// Units: milliseconds since some fixed moment, cut to 32 bits. The tick wraps every 49.7 days, so
// callers compare only differences, in unsigned 32-bit arithmetic.
#pragma once

#include <cstdint>

namespace tolk::platform {

std::uint32_t tick_ms();

}  // namespace tolk::platform
