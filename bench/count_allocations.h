#pragma once

#include <atomic>
#include <cstdint>

namespace bench {

/// How often the program has allocated memory. Needs count_allocations.cpp in the program, which counts.
extern std::atomic<std::uint64_t> allocations;

}  // namespace bench
