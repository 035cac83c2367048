// Converts decimal text to a number, for ports. Like the atoi of C, but defined for every input.
//
// Thread: any. Owner: none. Failure: none; a text without a number gives 0.
#pragma once

namespace tolk::platform {

// Reads blanks, one sign and digits, and ignores the rest. A number beyond 32 bits gives the
// nearest limit, and null gives 0.
int parse_int(const char* text);

}  // namespace tolk::platform
