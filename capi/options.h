// A struct of the host, of the size that the host knows: members behind it are zero.
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

}  // namespace tolk
