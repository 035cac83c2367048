#include "platform/direct_send.h"

namespace tolk::platform {

int descriptor_for_direct_send(const uv_stream_t*) { return kNoDescriptor; }

std::size_t direct_send(int, std::span<const uv_buf_t>) { return 0; }

}  // namespace tolk::platform
