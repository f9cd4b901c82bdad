#pragma once

#include <hxerror/api.h>

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

namespace HX {

/// How many letters must be left out, put in, changed or exchanged with the next one to make one word of the other.
/// Capitals count as small letters.
/// @param a  One word.
/// @param b  The other.
/// @return The number of letters; 0 for equal words.
HX_API std::size_t editDistance(std::string_view a, std::string_view b);

/// "; did you mean NAME?", to be put behind an error.
/// @param typed  What was written.
/// @param names  What could have been meant.
/// @return The text with the name that is most like what was typed, or else the shortest one that has it in it, for
///         whoever left out the beginning. Empty when there is no such name, or when it is one of `names`.
HX_API std::string didYouMean(std::string_view typed, std::span<const std::string> names);

}  // namespace HX
