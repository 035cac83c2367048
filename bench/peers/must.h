// What a peer does with a result that cannot be: the measurement has failed.
#pragma once

#include <stdexcept>

namespace bench {

inline void must(bool is_right, const char* what) {
  if (!is_right) throw std::runtime_error(what);
}

}  // namespace bench
