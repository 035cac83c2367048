// The allocations of the process: operator new, the library's malloc and realloc, and what libuv
// allocates. libuv's realloc is left alone: it ends the process itself when its table of watchers
// can't grow.
#include <uv.h>

#include <cstdlib>
#include <new>

#include "tests/seam/faults.h"

using tolk::test::Chance;
using tolk::test::fails_now;

// NOLINTBEGIN(bugprone-reserved-identifier): the linker makes these names.
extern "C" {

void* __real_malloc(std::size_t size);
void* __wrap_malloc(std::size_t size);
void* __real_realloc(void* memory, std::size_t size);
void* __wrap_realloc(void* memory, std::size_t size);

void* __wrap_malloc(std::size_t size) {
  return fails_now(Chance::memory) ? nullptr : __real_malloc(size);
}

void* __wrap_realloc(void* memory, std::size_t size) {
  return fails_now(Chance::memory) ? nullptr : __real_realloc(memory, size);
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)

namespace {

void* allocate(std::size_t size) {
  if (fails_now(Chance::memory)) throw std::bad_alloc();
  void* const memory = __real_malloc(size == 0 ? 1 : size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

void* calloc_for_libuv(std::size_t count, std::size_t size) {
  return fails_now(Chance::memory) ? nullptr : std::calloc(count, size);
}

}  // namespace

void* operator new(std::size_t size) { return allocate(size); }
void* operator new[](std::size_t size) { return allocate(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return __wrap_malloc(size == 0 ? 1 : size);
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }

void tolk::test::take_over_memory_of_libuv() {
  uv_replace_allocator(__wrap_malloc, __real_realloc, calloc_for_libuv, std::free);
}
