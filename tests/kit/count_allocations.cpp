#include "count_allocations.h"

#include <cstdlib>
#include <new>

namespace {

thread_local std::size_t allocations = 0;
thread_local std::size_t left = 0;  // Until one fails; 0: none will.
thread_local bool lasts = false;
thread_local bool hasFailed = false;

void* allocate(std::size_t size, std::size_t alignment) {
  ++allocations;
  if (left != 0 && --left == 0) {
    hasFailed = true;
    if (lasts) left = 1;
    throw std::bad_alloc();
  }
  // The system wants whole multiples of the alignment.
  if (void* memory = std::aligned_alloc(alignment, (size + alignment) / alignment * alignment)) return memory;
  throw std::bad_alloc();
}

}  // namespace

namespace kit {

std::size_t allocationsOfThisThread() noexcept { return allocations; }

OutOfMemory::OutOfMemory(std::size_t nth, bool forGood) noexcept {
  left = nth;
  lasts = forGood;
  hasFailed = false;
}

OutOfMemory::~OutOfMemory() { left = 0; }

bool OutOfMemory::wasMet() noexcept { return hasFailed; }

}  // namespace kit

void* operator new(std::size_t size) { return allocate(size, __STDCPP_DEFAULT_NEW_ALIGNMENT__); }
void* operator new(std::size_t size, std::align_val_t alignment) {
  return allocate(size, static_cast<std::size_t>(alignment));
}
// What algorithms take their room with. The library's own would be freed by what stands below.
void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  try {
    return operator new(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::align_val_t) noexcept { std::free(memory); }
// For the shared libraries too. <new> says so of all the others, and of these where the compiler itself calls them.
[[gnu::visibility("default")]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
[[gnu::visibility("default")]] void operator delete(void* memory, std::size_t, std::align_val_t) noexcept {
  std::free(memory);
}
