#include "params/large_memory.h"

#include <cstdint>
#include <cstdlib>
#if defined(__linux__)
#include <sys/mman.h>
#endif

namespace tolk {

// At first, glibc's malloc returns each large piece to the system when it is freed, so that the
// next one is made of fresh pages again. It keeps pieces of up to the size of the largest one that
// it has seen freed, and gives back what is more than twice that size.
void expect_large_piece(std::size_t size) {
#if defined(__GLIBC__)
  constexpr std::size_t least_bytes = std::size_t{1} << 18;
  constexpr std::size_t kept_bytes = std::size_t{4} << 20;
  if (size < least_bytes) return;
  static const bool done = [] {
    void* volatile piece = std::malloc(kept_bytes);  // volatile: or the compiler leaves both out
    std::free(piece);
    return true;
  }();
  static_cast<void>(done);
#else
  static_cast<void>(size);
#endif
}

void use_large_pages(void* memory, std::size_t size) {
#if defined(__linux__)
  constexpr std::size_t least_bytes = std::size_t{4} << 20;
  constexpr std::uintptr_t page_bytes = std::uintptr_t{2} << 20;
  if (size < least_bytes) return;
  // Only pages that lie inside the piece, so that it takes no more memory than before.
  const auto address = reinterpret_cast<std::uintptr_t>(memory);
  const auto begin = (address + page_bytes - 1) / page_bytes * page_bytes;
  const auto end = (address + size) / page_bytes * page_bytes;
  if (begin < end) madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
#else
  static_cast<void>(memory);
  static_cast<void>(size);
#endif
}

}  // namespace tolk
