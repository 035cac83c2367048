// Texts of others, as they may be shown: nothing in them reaches a terminal as a control character.
//
// Thread: any. Owner: values. Failure: std::bad_alloc.
#pragma once

#include <string>
#include <string_view>

namespace tolk::tool {

// Control characters, and bytes that are no UTF-8, as \n, \t or \x1b; quotes and backslashes with a
// backslash before them.
std::string printable(std::string_view text);

// For texts of whole lines: quotes, backslashes, line ends and tabs stay as they are.
std::string harmless(std::string_view text);

// Whether `printable` would leave it as it is, but for quotes and backslashes.
bool is_printable(std::string_view text);

}  // namespace tolk::tool
