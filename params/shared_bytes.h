// Bytes that several holders read and nobody changes: a received message, or the encoded bytes of a
// block that is being written. One exception: a block that parses received bytes ends their texts
// in place (TolkParamsAccess::parse_shared).
// Thread: any. Owner: the last holder of `owner` frees the bytes. Failure: none.
#pragma once

#include <algorithm>
#include <memory>
#include <string_view>

namespace tolk {

struct SharedBytes {
  std::shared_ptr<const void> owner;
  std::string_view view;
};

// A copy that nobody else holds.
inline SharedBytes copy_of(std::string_view bytes) {
  const auto memory = std::make_shared_for_overwrite<char[]>(bytes.size());
  std::copy(bytes.begin(), bytes.end(), memory.get());
  return {memory, {memory.get(), bytes.size()}};
}

}  // namespace tolk
