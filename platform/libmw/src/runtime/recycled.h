#pragma once

#include "threadkept.h"

#include <array>
#include <cstddef>
#include <memory>

namespace mw::detail {

/// Allocates what comes and goes by the burst, for std::allocate_shared: memory that the calling thread has let go of
/// is used again first. The allocator of the system keeps no more than a few blocks of a size at hand; those beyond are
/// split off and merged anew with each burst, which costs as much as to decode a call.
template <class T>
class Recycled {
 public:
  using value_type = T;

  Recycled() = default;
  template <class U>
  Recycled(const Recycled<U>&) {}  // NOLINT(google-explicit-constructor): as the standard asks of allocators.

  T* allocate(std::size_t count) {
    auto* const kept = count == 1 ? ofThisThread<Kept>() : nullptr;
    return kept && kept->size > 0 ? kept->blocks[--kept->size] : std::allocator<T>().allocate(count);
  }
  void deallocate(T* block, std::size_t count) {
    auto* const kept = count == 1 ? ofThisThread<Kept>() : nullptr;
    if (kept && kept->size < kept->blocks.size()) {
      kept->blocks[kept->size++] = block;
    } else {
      std::allocator<T>().deallocate(block, count);
    }
  }
  bool operator==(const Recycled&) const = default;

 private:
  struct Kept {
    Kept() = default;
    Kept(const Kept&) = delete;
    Kept& operator=(const Kept&) = delete;
    ~Kept() {
      while (size > 0) std::allocator<T>().deallocate(blocks[--size], 1);
    }
    std::size_t size = 0;
#ifdef __SANITIZE_ADDRESS__
    std::array<T*, 0> blocks{};  // It is to see who uses what has gone.
#else
    std::array<T*, 64> blocks{};
#endif
  };
};

}  // namespace mw::detail
