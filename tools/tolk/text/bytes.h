// Bytes as the C++ layer passes them, from and to bytes in a text.
//
// Thread: any. Owner: the view borrows from the bytes. Failure: std::bad_alloc.
#pragma once

#include <string_view>
#include <tolk/tolk.hpp>

namespace tolk::tool {

inline std::string_view view_of(const bytes& data) {
  return {reinterpret_cast<const char*>(data.data()), data.size()};
}

inline bytes bytes_from(std::string_view text) {
  const auto* const first = reinterpret_cast<const std::byte*>(text.data());
  return {first, first + text.size()};
}

}  // namespace tolk::tool
