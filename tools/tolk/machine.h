// What machine this is, for figures that mean little without it.
#pragma once

#include <string>

namespace tolk::tool {

// Processor, cores and system, in one line.
std::string machine();

}  // namespace tolk::tool
