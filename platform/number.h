// Decimal text to a number, for ports. As lenient as C's atoi, but defined for every input.
//
// Thread: any. Owner: none. Failure: none; what is no number is 0.
#pragma once

namespace tolk::platform {

// Blanks, one sign, digits; whatever follows is ignored. Beyond 32 bits the nearest limit.
// Null is 0.
int parse_int(const char* text);

}  // namespace tolk::platform
