// Text on the process's standard output, whole and in order.
//
// A thread that finds no writer becomes the writer: it writes its own text, and then the texts that
// other threads enqueue meanwhile. No lock is held while std::cout is used, because the host may
// have installed a stream buffer that prints, takes a lock of the host or blocks.
//
// Thread: any, also a thread inside such a write. A call that finds a writer enqueues its text and
// returns, so the text may come out a moment later. The host must order its own use of std::cout.
// Owner: none. Lifetime: from before the first static initialiser until the process ends. The
// thread that ends the process then writes the texts in the queue. Failure: none is reported. A
// text is dropped if the stream refuses it or throws, if there is no memory to enqueue it, and if
// the queue has kMaxQueuedBytes and the writer does not get on for kPatience.
#pragma once

#include <chrono>
#include <cstddef>
#include <string_view>

namespace tolk::platform {

inline constexpr std::size_t kMaxQueuedBytes = std::size_t{1} << 20;
inline constexpr std::chrono::seconds kPatience{1};

// The text as it is, not flushed.
void print(std::string_view text);
// The text, a newline and a flush. A short line needs no memory unless it is enqueued.
void print_line(std::string_view text);
// Whole lines, each of which ends in a newline, with a flush after each. The library prints nothing
// else between them.
void print_lines(std::string_view text);
// std::ios_base::sync_with_stdio(false), in order with the texts: its first call in a process
// replaces the stream buffers.
void desync_standard_output();

}  // namespace tolk::platform
