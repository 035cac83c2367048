// Text on the process's standard output, whole and in order.
//
// A thread that finds nobody writing becomes the writer: it writes its own text, and then what
// other threads left to it meanwhile. No lock is held while std::cout is used, since the host may
// have installed a stream buffer that prints itself, takes locks of the host or blocks.
//
// Thread: any, also a thread inside a write of this kind. A call that finds a writer leaves its
// text to it and returns: the text comes out after what was left before it. The host's own use of
// std::cout is the host's to order.
// Owner: none. Lifetime: from before the first static initialiser until the process ends; what is
// left to a writer then is written by the thread that ends the process.
// Failure: none is told. A text is dropped when the stream refuses it or throws, when there is no
// memory to leave it to the writer, and when the writer has been behind by kMostBytesLeft for
// kPatience.
#pragma once

#include <chrono>
#include <cstddef>
#include <string_view>

namespace tolk::platform {

inline constexpr std::size_t kMostBytesLeft = std::size_t{1} << 20;
inline constexpr std::chrono::seconds kPatience{1};

// The text as it is, not flushed.
void print(std::string_view text);
// The text, a newline and a flush. A short line needs no memory unless it is left to a writer.
void print_line(std::string_view text);
// Whole lines, each of which ends in a newline, with a flush after each. Nothing that others print
// comes between them.
void print_lines(std::string_view text);
// std::ios_base::sync_with_stdio(false), in order with the texts: its first call in a process
// replaces the buffers that texts are written to.
void desync_standard_output();

}  // namespace tolk::platform
