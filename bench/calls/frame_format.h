// The frames of the two baselines: this header, then the payload.
#pragma once

#include <cstdint>

namespace bench {

enum class FrameKind : std::uint32_t { echo, bulk, post };

struct FrameHeader {
  std::uint32_t payload_bytes = 0;
  FrameKind kind = FrameKind::echo;
  std::uint64_t token = 0;  // the caller's; the answer has the same
};

}  // namespace bench
