// A description of this machine, for measurements.
//
// Thread: any. Failure: std::bad_alloc.
#pragma once

#include <string>

namespace tolk::tool {

// Processor, cores and system, in one line.
std::string machine();

}  // namespace tolk::tool
