// The format of a frame: a 4-byte little-endian length and that many bytes of one block. It has no
// magic number, no version, no checksum.
// Thread: any; no state. Failure: none.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string_view>

#include "params/record.h"

namespace tolk::frame_format {

inline constexpr std::size_t kPrefixBytes = 4;
// The length travels through signed 32-bit numbers on both sides.
inline constexpr std::size_t kMaxPayloadBytes =
    std::numeric_limits<std::int32_t>::max() - kPrefixBytes;

inline void store_length(char* to, std::size_t payload_bytes) {
  store32(to, static_cast<std::uint32_t>(payload_bytes));
}

// `frame` has at least a prefix. Peers may send any number, negative ones included.
inline std::int64_t load_length(std::string_view frame) { return load_int(frame.data()); }

}  // namespace tolk::frame_format
