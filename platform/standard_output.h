// Text on the process's standard output, whole: one lock, one insertion.
//
// Thread: any. The lock is the process-wide output lock. The host's own use of std::cout is the
// host's to order.
// Owner: none. Lifetime: from before the first static initialiser until after the last destructor.
// Failure: none; a stream that refuses drops the text.
#pragma once

#include <mutex>
#include <string_view>

namespace tolk::platform {

// The text as it is, not flushed.
void print(std::string_view text);
// The text, a newline and a flush.
void print_line(std::string_view text);
// Whole lines, each of which ends in a newline. Lines of other threads come before or after them.
void print_lines(std::string_view text);
// std::ios_base::sync_with_stdio(false), in order with the writing: its first call in a process
// replaces the buffers that others write to.
void desync_standard_output();

std::mutex& standard_output_mutex();

}  // namespace tolk::platform
