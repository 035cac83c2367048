// Large pieces of memory: fewer page faults for them. A page fault costs several times what the
// copy of its page costs.
//
// Thread: any. Owner: none. Failure: none; where the system offers no help, nothing changes.
#pragma once

#include <cstddef>

namespace tolk {

// Call it before a piece of `size` bytes is allocated.
void expect_large_piece(std::size_t size);

// Call it after the allocation, before the piece is written.
void use_large_pages(void* memory, std::size_t size);

}  // namespace tolk
