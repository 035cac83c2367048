// A line of the monitor for people: `12:03:04.123  1 -> add [2,3]`.
//
// Thread: any. Failure: std::bad_alloc.
#pragma once

#include <string>

#include "tools/tolk/text/json.h"
#include "tools/tolk/text/output.h"

namespace tolk::tool {

// The line of a frame, without a line end; long ones end with dots. Columns of 0: any number.
std::string frame_line(const Json& frame, const Colors& colors, std::size_t columns);

// What has failed or is malformed in a frame; empty if nothing is.
std::string error_in(const Json& frame);

}  // namespace tolk::tool
