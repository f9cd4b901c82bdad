#include "numbers.h"

#include <hxvalue/hxvalue.h>

#include <charconv>
#include <cmath>
#include <limits>
#include <stdexcept>

namespace HX {

namespace {

template <typename Decimal>
std::string shortestText(Decimal number) {
  if (std::isnan(number)) return "nan";  // Whatever the sign of a NaN: it says nothing.
  char buffer[32];
  std::string text(buffer, std::to_chars(buffer, buffer + sizeof buffer, number).ptr);
  if (std::isfinite(number) && text.find_first_of(".e") == std::string::npos) text += ".0";
  return text;
}

template <std::integral Wanted, std::integral Given>
bool fits(Given number) {
  return std::in_range<Wanted>(number);
}

template <std::integral Wanted, std::floating_point Given>
bool fits(Given number) {
  // The bounds are powers of two, so that they are exact in both floating types; NaN fails both comparisons.
  const Given beyond = std::ldexp(Given{1}, std::numeric_limits<Wanted>::digits);
  const Given whole = std::trunc(number);
  return whole >= -beyond && whole < beyond;
}

template <std::floating_point Wanted, typename Given>
bool fits(Given number) {
  if constexpr (std::same_as<Wanted, float> && std::same_as<Given, double>) {
    return !std::isfinite(number) || std::isfinite(static_cast<float>(number));
  } else {
    return true;
  }
}

}  // namespace

std::string decimalText(float number) { return shortestText(number); }
std::string decimalText(double number) { return shortestText(number); }

template <typename Number>
Number HXValue::number() const {
  const auto convert = [this](auto given) {
    if (fits<Number>(given)) return static_cast<Number>(given);
    throw std::runtime_error("the number " + toString() + " does not fit " + TypeToString(HXValue(Number{}).getType()));
  };
  switch (type_) {
    case Type::Int:
      return convert(slot_.int32);
    case Type::Int64:
      return convert(slot_.int64);
    case Type::Float:
      return convert(slot_.float32);
    case Type::Double:
      return convert(slot_.float64);
    default:
      failType("a number");
  }
}

void HXValue::requireInt64(std::uint64_t number) {
  if (!fits<std::int64_t>(number)) {
    throw std::runtime_error("the number " + std::to_string(number) + " does not fit Int64");
  }
}

std::int32_t HXValue::toInt() const { return number<std::int32_t>(); }
std::int64_t HXValue::toInt64() const { return number<std::int64_t>(); }
float HXValue::toFloat() const { return number<float>(); }
double HXValue::toDouble() const { return number<double>(); }

bool HXValue::toBool() const {
  if (type_ == Type::Bool) return slot_.boolean;
  if (type_ == Type::Int64) return slot_.int64 != 0;
  const double content = toDouble();
  if (std::isnan(content)) throw std::runtime_error("the number nan is neither true nor false");
  return content < 0 || content > 0;
}

}  // namespace HX
