// Memory for bytes that come in large amounts.
//
// Thread: any. Owner: the caller frees with std::free. Failure: null, and the old block stays.
#pragma once

#include <cstddef>

namespace tolk::platform {

// Blocks of this size and more are mappings of their own: no allocator keeps them for itself.
inline constexpr std::size_t kLargeBlockBytes = std::size_t{32} << 20;

// How many times the memory in use may be reserved for more of the same. Linux counts memory when
// it is written to, Windows when it is reserved.
#if defined(_WIN32)
inline constexpr std::size_t kReserveFactor = 8;
#else
inline constexpr std::size_t kReserveFactor = 64;
#endif

// Asks the system for large pages in [memory, memory + size), if there are many of them: each page
// that is touched for the first time costs as much as a copy of its bytes. It has no effect where
// the system has no such request, or where the memory may soon be a small block's.
void prefer_large_pages(void* memory, std::size_t size);

// Call it before a piece of `size` bytes is allocated. At first, an allocator may return each large
// piece to the system when it is freed, so that the next one is made of fresh pages again.
void expect_large_piece(std::size_t size);

// As std::realloc. The system moves large blocks without copying them, where it can.
void* resize(void* memory, std::size_t size);

}  // namespace tolk::platform
