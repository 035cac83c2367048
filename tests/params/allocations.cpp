#include "tests/params/allocations.h"

#include <cstddef>
#include <cstdlib>
#include <new>

namespace tolk::test {

int allocations_until_failure = -1;
long live_allocations = 0;

}  // namespace tolk::test

using tolk::test::allocations_until_failure;
using tolk::test::live_allocations;

namespace {

void* allocate(std::size_t size) {
  if (allocations_until_failure == 0) throw std::bad_alloc();
  if (allocations_until_failure > 0) --allocations_until_failure;
  void* const memory = std::malloc(size);
  if (memory == nullptr) throw std::bad_alloc();
  ++live_allocations;
  return memory;
}

void free_counted(void* memory) {
  if (memory == nullptr) return;
  --live_allocations;
  std::free(memory);
}

}  // namespace

void* operator new(std::size_t size) { return allocate(size); }
void* operator new[](std::size_t size) { return allocate(size); }
void operator delete(void* memory) noexcept { free_counted(memory); }
void operator delete[](void* memory) noexcept { free_counted(memory); }
void operator delete(void* memory, std::size_t) noexcept { free_counted(memory); }
void operator delete[](void* memory, std::size_t) noexcept { free_counted(memory); }
