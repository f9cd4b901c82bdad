#pragma once

#include <span>
#include <string>
#include <string_view>

namespace korvo {

/// How many letters must be left out, put in, changed or exchanged with the next one to make one word of the other.
/// Capitals count as small letters.
std::size_t editDistance(std::string_view a, std::string_view b);

/// "; did you mean NAME?" with the name that is most like what was typed, or else the shortest one that has it in it,
/// for whoever left out the beginning. Empty when there is no such name, or when it is one of `names`.
std::string didYouMean(std::string_view typed, std::span<const std::string> names);

}  // namespace korvo
