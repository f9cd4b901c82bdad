#pragma once

#include <hxvalue/hxvalue.h>

#include <ostream>

namespace HX {

/// Lets GoogleTest show values as text in failures.
inline void PrintTo(const HXValue& value, std::ostream* out) { *out << value.toString(HXValue::Verbosity::Typed); }

}  // namespace HX
