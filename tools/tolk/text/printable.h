// Text from peers and files in a form that is safe to show: no control character of it reaches a
// terminal.
//
// Thread: any. Owner: values. Failure: std::bad_alloc.
#pragma once

#include <string>
#include <string_view>

namespace tolk::tool {

// Control characters, and bytes that are not UTF-8, become \n, \t or \x1b; quotes and backslashes
// get a backslash before them.
std::string printable(std::string_view text);

// The same for whole lines: quotes, backslashes, line ends and tabs stay as they are.
std::string harmless(std::string_view text);

// Whether `printable` would change nothing but quotes and backslashes.
bool is_printable(std::string_view text);

}  // namespace tolk::tool
