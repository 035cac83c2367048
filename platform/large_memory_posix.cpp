#include <sys/mman.h>

#include <cstdint>
#include <cstdlib>

#include "platform/large_memory.h"

namespace tolk::platform {

void prefer_large_pages([[maybe_unused]] void* memory, [[maybe_unused]] std::size_t size) {
#if defined(MADV_HUGEPAGE)
  constexpr std::uintptr_t kPageBytes = 4096;
  if (size < kLargeBlockBytes) return;
  const auto begin =
      (reinterpret_cast<std::uintptr_t>(memory) + kPageBytes - 1) & ~(kPageBytes - 1);
  const auto end = (reinterpret_cast<std::uintptr_t>(memory) + size) & ~(kPageBytes - 1);
  madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
#endif
}

// glibc keeps pieces of up to the size of the largest one that it has seen freed, and gives back
// what is more than twice that size.
void expect_large_piece([[maybe_unused]] std::size_t size) {
#if defined(__GLIBC__)
  constexpr std::size_t kLeastBytes = std::size_t{1} << 18;
  constexpr std::size_t kKeptBytes = std::size_t{4} << 20;
  if (size < kLeastBytes) return;
  static const bool done = [] {
    void* volatile piece = std::malloc(kKeptBytes);  // volatile: or the compiler leaves both out
    std::free(piece);
    return true;
  }();
  static_cast<void>(done);
#endif
}

void* resize(void* memory, std::size_t size) {
  void* const resized = std::realloc(memory, size);
  if (resized != nullptr) prefer_large_pages(resized, size);
  return resized;
}

}  // namespace tolk::platform
