// The piece size of large data: one number for every client and server of the process.
// Thread: any. Units: bytes. Not checked when set; a sender takes the default for 0 or less.
#pragma once

#include <atomic>

namespace tolk {

inline constexpr int kDefaultPieceBytes = 32768;

inline std::atomic<int>& piece_bytes() {
  static constinit std::atomic<int> bytes{kDefaultPieceBytes};
  return bytes;
}

}  // namespace tolk
