// Texts as Windows wants them: UTF-16, where everything else here is UTF-8.
//
// Thread: any. Failure: what is malformed becomes U+FFFD; std::bad_alloc.
#pragma once

#include <string>
#include <string_view>

namespace tolk::tool {

std::wstring wide(std::string_view text);
std::string narrow(std::wstring_view text);

}  // namespace tolk::tool
