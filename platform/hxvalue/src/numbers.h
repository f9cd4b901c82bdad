#pragma once

#include <string>

namespace HX {

/// The shortest decimal that reads back as the same number of the same type, with a fraction or an exponent:
/// `1.0`, `0.1`, `1e+30`; `nan`, `inf` and `-inf` for what has no digits.
std::string decimalText(float number);
std::string decimalText(double number);

}  // namespace HX
