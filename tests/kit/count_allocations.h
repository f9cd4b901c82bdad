#pragma once

#include <cstddef>

namespace kit {

/// How often the calling thread has asked operator new for memory so far. A program that uses this compiles
/// count_allocations.cpp in, which replaces the global operator new.
std::size_t allocationsOfThisThread() noexcept;

}  // namespace kit
