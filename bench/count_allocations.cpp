#include "count_allocations.h"

#include <cstdlib>
#include <new>

// Replaces the global allocation functions of the program. A source of its own, because a compiler that sees into them
// takes the pairs of malloc and delete for mistakes.

namespace bench {

std::atomic<std::uint64_t> allocations{0};

}  // namespace bench

void* operator new(std::size_t size) {
  bench::allocations.fetch_add(1, std::memory_order_relaxed);
  if (void* memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}

void* operator new(std::size_t size, std::align_val_t alignment) {
  bench::allocations.fetch_add(1, std::memory_order_relaxed);
  const auto step = static_cast<std::size_t>(alignment);
  if (void* memory = std::aligned_alloc(step, (size + step - 1) / step * step)) return memory;
  throw std::bad_alloc();
}

void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::align_val_t) noexcept { std::free(memory); }
// For the shared libraries too. <new> says so of all the others, and of these where the compiler itself calls them.
[[gnu::visibility("default")]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
[[gnu::visibility("default")]] void operator delete(void* memory, std::size_t, std::align_val_t) noexcept {
  std::free(memory);
}
