#pragma once

#include "livemodel.h"

#include <chrono>
#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace korvo {

/// "0.3s", "42s", "5m", "3h", "2d"; a time to come is "0.0s".
std::string formatAge(std::chrono::nanoseconds age);

/// "0.2/s", "48/s"; "-" for what does not change, nothing for what is not known.
std::string formatRate(std::optional<double> rate);

/// `text` in at most `width` characters, with an ellipsis in place of what does not fit. Control characters, those that
/// would steer a terminal, become question marks.
std::string fit(std::string_view text, std::size_t width);

/// Aligned columns KEY, KIND, AGE, RATE, SUBS, VALUE, a head first; no line longer than `width` characters (0: as long
/// as need be).
std::vector<std::string> drawTable(std::span<const LiveRow> rows, std::size_t width, mw::SystemTimePoint now);

/// What a person typed, key by key: a character ("q", "ö"), or the sequence that a terminal sends for a special key
/// ("\x1b[A").
std::vector<std::string> splitKeys(std::string_view typed);

}  // namespace korvo
