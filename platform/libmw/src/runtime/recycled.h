#pragma once

#include "threadkept.h"

#include <cstddef>
#include <memory>
#include <new>

namespace mw::detail {

#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool kAddressesAreWatched = true;
#elif defined(__has_feature)
inline constexpr bool kAddressesAreWatched = __has_feature(address_sanitizer);
#else
inline constexpr bool kAddressesAreWatched = false;
#endif

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
    auto* const list = count == 1 ? ofThisThread<FreeList>() : nullptr;
    return list && list->size > 0 ? list->blocks[--list->size] : std::allocator<T>().allocate(count);
  }
  void deallocate(T* block, std::size_t count) {
    auto* const list = count == 1 ? ofThisThread<FreeList>() : nullptr;
    if (list && list->size < kMost && list->makeRoom()) {
      list->blocks[list->size++] = block;
    } else {
      std::allocator<T>().deallocate(block, count);
    }
  }
  bool operator==(const Recycled&) const = default;

 private:
  static constexpr std::size_t kMost = kAddressesAreWatched ? 0 : 64;  // Who uses what has gone is to be seen.

  struct FreeList {
    FreeList() = default;
    FreeList(const FreeList&) = delete;
    FreeList& operator=(const FreeList&) = delete;
    ~FreeList() {
      while (size > 0) std::allocator<T>().deallocate(blocks[--size], 1);
    }
    /// @return Whether there is any.
    bool makeRoom() {
      if (!blocks) blocks.reset(new (std::nothrow) T*[kMost]);
      return blocks != nullptr;
    }
    std::size_t size = 0;
    std::unique_ptr<T*[]> blocks;  // Not here: threads have little room for what they keep.
  };
};

}  // namespace mw::detail
