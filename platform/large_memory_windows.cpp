#include <cstdlib>

#include "platform/large_memory.h"

namespace tolk::platform {

void prefer_large_pages(void*, std::size_t) {}

void expect_large_piece(std::size_t) {}

void* resize(void* memory, std::size_t size) { return std::realloc(memory, size); }

}  // namespace tolk::platform
