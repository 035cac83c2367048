#include "platform/peer_user.h"

namespace tolk::platform {

// Users have no numbers on Windows, so the rule has nothing to compare.
bool is_trusted_user(unsigned, unsigned) { return true; }

PeerUser peer_user(const uv_pipe_t*) { return {true, {}}; }

}  // namespace tolk::platform
