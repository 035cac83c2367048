// Text on the process's standard output, whole: one lock, one insertion.
//
// Thread: any. The lock is the process-wide output lock, which the block dump takes as well; no
// host code runs under it. The host's own use of std::cout is the host's to order.
// Failure: none; a stream that refuses drops the text.
#pragma once

#include <string_view>

namespace tolk {

// The text as it is, not flushed.
void stdout_text(std::string_view text);
// The text, a line end and a flush.
void stdout_line(std::string_view text);
// std::ios_base::sync_with_stdio(false) under the same lock: its first call in a process replaces
// the buffers that others write to.
void stdout_unsync();

}  // namespace tolk
