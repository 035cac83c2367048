// Bytes in which a piece that is lost, doubled or out of order shows.
#pragma once

#include <cstddef>
#include <string>

namespace tolk::test {

inline std::string pattern(std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 31 + i / 251);
  return bytes;
}

}  // namespace tolk::test
