#pragma once

#include <hxvalue/hxvalue.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace korvo {

// What stands in the cells of a terminal. Wide characters take two columns, combining ones none.

/// How many columns a terminal gives to `text`.
std::size_t columnsOf(std::string_view text);

/// As much of the beginning as takes at most so many columns.
std::string_view beginning(std::string_view text, std::size_t columns);

/// `text` in at most so many columns, with an ellipsis in place of what does not fit. Control characters, those that
/// would steer a terminal, and bytes that are not UTF-8 become question marks.
std::string fit(std::string_view text, std::size_t columns);

/// In exactly so many columns, with blanks behind it, or before it.
std::string padded(std::string_view text, std::size_t columns);
std::string rightAligned(std::string_view text, std::size_t columns);

/// A value for a person who looks at many: in the manner of JSON, numbers to six digits, bytes by their count, and cut
/// short where it has become longer than so many columns.
std::string briefText(const HX::HXValue& value, std::size_t columns);

/// Numbers as a row of bars, one column each, from the least one to the greatest.
std::string sparkline(const std::vector<double>& numbers);

/// What a person typed, key by key: a character ("q", "ö"), or the sequence that a terminal sends for a special key
/// ("\x1b[A").
std::vector<std::string> splitKeys(std::string_view typed);

}  // namespace korvo
