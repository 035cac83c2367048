// A struct of the host, of the size that the host knows: members behind it are zero. One of size 0
// was not filled in, and nothing of it could be read.
// Thread: any. Owner: none. Failure: none.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace tolk {

// `given` may be null.
template <class Options>
Options options_of(const Options* given) {
  Options options{};
  if (given != nullptr) std::memcpy(&options, given, std::min(given->size, sizeof options));
  return options;
}

// `given` may be null.
template <class Options>
bool is_without_size(const Options* given) {
  return given != nullptr && given->size == 0;
}

}  // namespace tolk
