// How exactly a side takes the framing of its peers.
// Thread: any; a value. Failure: none.
#pragma once

#include <cstddef>

#include "transport/frame_format.h"

namespace tolk {

struct StreamRules {
  // Frames come in order, and one with a negative length, or of more than `most_frame_bytes`, ends
  // the stream. Otherwise it is as FrameReader says.
  bool strict = false;
  std::size_t most_frame_bytes = frame_format::kMaxPayloadBytes;
};

}  // namespace tolk
