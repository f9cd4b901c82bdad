#pragma once

#include <hxerror/api.h>
#include <hxview/layout.h>

#include <chrono>
#include <cstdint>

namespace HX::view {

/// Sleeps while the low half of a shared word is what it was. May return early.
/// @param word   May be mapped for reading only.
/// @param value  What it was.
/// @param limit  How long at most.
HX_API void sleepWhile(const Word& word, std::uint64_t value, std::chrono::nanoseconds limit) noexcept;
/// Wakes all who sleep on a shared word, of whatever process.
/// @param word  Which.
HX_API void wakeAll(const Word& word) noexcept;

}  // namespace HX::view
