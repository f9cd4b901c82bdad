#pragma once

#include <hxerror/api.h>
#include <hxvalue/hxvalue.h>

#include <chrono>
#include <cstdint>

namespace HX {

/// What a text like "200ms" says: a number without a sign, and its unit, which is ns, us, ms, s, min, h or d.
/// @param text  A String.
/// @return The duration, to the nearest nanosecond.
/// @throws std::runtime_error saying what is wrong with it: no text, no number, no such unit, more than 292 years.
HX_API std::chrono::nanoseconds toDuration(const HXValue& text);

/// What a text like "64MiB" says: a number without a sign, and its unit, which is B, kB, MB, GB, TB for powers of 1000,
/// or KiB, MiB, GiB, TiB for powers of 1024.
/// @param text  A String.
/// @return The number of bytes, to the nearest.
/// @throws std::runtime_error saying what is wrong with it: no text, no number, no such unit, more than 2^63.
HX_API std::uint64_t toBytes(const HXValue& text);

}  // namespace HX
