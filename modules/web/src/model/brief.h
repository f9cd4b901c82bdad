#pragma once

#include <hxvalue/hxvalue.h>

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace HX::web {

/// A value in one short line. Costs what it shows, however large the value is.
/// @param most  Bytes, about.
std::string brief(const HXValue& value, std::size_t most);

/// Where in a value a number is: names of entries, and places of elements as decimal numbers.
using ValuePath = std::vector<std::string>;

/// The number at a place, a bool as 0 or 1; none when something else, or nothing, is there.
std::optional<double> numberAt(const HXValue& value, const ValuePath& path);

}  // namespace HX::web
