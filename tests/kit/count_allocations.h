#pragma once

#include <cstddef>

namespace kit {

/// How often the calling thread has asked operator new for memory so far. A program that uses this compiles
/// count_allocations.cpp in, which replaces the global operator new.
std::size_t allocationsOfThisThread() noexcept;

/// While it lives, there is no memory for the calling thread at its `nth` request, counted from 1, and for none after
/// that when it is `forGood`. One at a time.
class OutOfMemory {
 public:
  OutOfMemory(std::size_t nth, bool forGood) noexcept;
  OutOfMemory(const OutOfMemory&) = delete;
  OutOfMemory& operator=(const OutOfMemory&) = delete;
  ~OutOfMemory();

  /// Whether a request of the calling thread was refused by the last one made.
  static bool wasMet() noexcept;
};

}  // namespace kit
