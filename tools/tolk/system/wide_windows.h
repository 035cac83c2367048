// Text conversion between UTF-16, which Windows uses, and UTF-8, which the command uses.
//
// Thread: any. Failure: malformed text becomes U+FFFD; std::bad_alloc.
#pragma once

#include <string>
#include <string_view>

namespace tolk::tool {

std::wstring wide(std::string_view text);
std::string narrow(std::wstring_view text);

}  // namespace tolk::tool
