// Bytes as base64, and back.
//
// Thread: any. Failure: BadBase64 for a text that is not base64; std::bad_alloc.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace tolk::tool {

struct BadBase64 : std::runtime_error {
  using std::runtime_error::runtime_error;
};

std::string to_base64(std::string_view bytes);
// Throws BadBase64.
std::string from_base64(std::string_view text);

}  // namespace tolk::tool
