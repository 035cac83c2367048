// Wire bytes written down in tests/golden/: hexadecimal bytes, blanks, and comments from # on.
#pragma once

#include <string>
#include <string_view>

#include "tests/params/hex.h"

namespace tolk::test {

// The bytes of tests/golden/<name>.hex.
std::string golden(std::string_view name);

// The frame of `payload` with the token, which the library generates, replaced by "0x1", as the
// golden files have it. A token is the last record of a call: the replacement changes its length
// and its check word and the length of the frame, and nothing else.
std::string with_token_masked(std::string_view payload);

// The payload with the call id of its envelope replaced, where that is a thread's number.
std::string with_call_id(std::string_view payload, int call_id);

}  // namespace tolk::test
