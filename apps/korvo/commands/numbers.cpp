#include "numbers.h"

#include "arguments.h"
#include "base/format.h"
#include "base/suggestion.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <utility>

#include <fmt/format.h>

namespace korvo {
namespace {

using HX::HXValue;
using Type = HXValue::Type;

bool isInteger(const HXValue& value) { return value.isInt() || value.isInt64(); }
bool isNumber(const HXValue& value) { return isInteger(value) || value.isFloat() || value.isDouble(); }

/// @param decimal  Without a fraction, and inside the range of 64 bits, it is one.
std::optional<std::int64_t> integerOf(double decimal) {
  constexpr double kBeyond = 9223372036854775808.0;  // 2^63
  if (std::trunc(decimal) != decimal || decimal < -kBeyond || decimal >= kBeyond) return std::nullopt;
  return static_cast<std::int64_t>(decimal);
}

std::optional<std::int64_t> integerOf(const HXValue& number) {
  return isInteger(number) ? std::optional(number.toInt64()) : integerOf(number.toDouble());
}

template <class Decimal>
std::optional<HXValue> decimalOf(const HXValue& number) {
  if (isInteger(number)) {
    const auto nearest = static_cast<Decimal>(number.toInt64());
    if (integerOf(static_cast<double>(nearest)) != number.toInt64()) return std::nullopt;
    return nearest;
  }
  const double exact = number.toDouble();
  if (std::isfinite(exact) && std::abs(exact) > static_cast<double>(std::numeric_limits<Decimal>::max())) {
    return std::nullopt;
  }
  const auto nearest = static_cast<Decimal>(exact);
  // So small that nothing would be left of it.
  if (nearest == 0 && exact != 0) return std::nullopt;
  return nearest;
}

/// The parameters of one overload, each filled with an argument that suits it.
struct Suited {
  std::size_t rank = 0;  ///< How far the worst of them is from what was typed; 0 for not at all.
  std::vector<HXValue> arguments;
};

/// Wider types first, and decimals before whole numbers for what has a fraction.
constexpr std::array kForIntegers{Type::Int, Type::Int64, Type::Double, Type::Float};
constexpr std::array kForDecimals{Type::Double, Type::Float, Type::Int64, Type::Int};

bool hasDecimal(const HXValue& value) {
  if (const auto* list = value.listIf()) return std::ranges::any_of(*list, hasDecimal);
  if (const auto* map = value.mapIf()) {
    return std::ranges::any_of(*map, [](const auto& entry) { return hasDecimal(entry.second); });
  }
  return value.isDouble() || value.isFloat();
}

/// @return How many types were tried before the one that suits; none when no type does.
std::optional<std::size_t> suit(HXValue& argument, const mw::TypeInterface& wanted) {
  const auto suits = [&](const HXValue& given) { return mw::AnyReference::of(given).fit(&wanted) != mw::Fit::None; };
  if (suits(argument)) return 0;
  const auto& types = hasDecimal(argument) ? kForDecimals : kForIntegers;
  for (std::size_t i = 0; i < types.size(); ++i) {
    auto converted = withNumbers(argument, types[i]);
    if (!converted || !suits(*converted)) continue;
    argument = std::move(*converted);
    return i + 1;
  }
  return std::nullopt;
}

std::optional<Suited> suit(std::vector<HXValue> arguments, const mw::MetaMethod& method) {
  Suited suited;
  if (!method.dynamic) {
    if (method.types.size() != arguments.size()) return std::nullopt;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
      const auto rank = suit(arguments[i], *method.types[i]);
      if (!rank) return std::nullopt;
      suited.rank = std::max(suited.rank, *rank);
    }
  }
  suited.arguments = std::move(arguments);
  return suited;
}

}  // namespace

std::optional<HXValue> asNumber(const HXValue& number, Type type) {
  if (!isNumber(number)) return std::nullopt;
  if (number.getType() == type) return number;
  if (type == Type::Float) return decimalOf<float>(number);
  if (type == Type::Double) return decimalOf<double>(number);
  const auto integer = integerOf(number);
  if (!integer) return std::nullopt;
  if (type == Type::Int64) return HXValue(*integer);
  if (type != Type::Int || !std::in_range<std::int32_t>(*integer)) return std::nullopt;
  return HXValue(static_cast<std::int32_t>(*integer));
}

std::optional<HXValue> withNumbers(const HXValue& value, Type type) {
  if (isNumber(value)) return asNumber(value, type);
  if (const auto* list = value.listIf()) {
    HXValue::List converted;
    converted.reserve(list->size());
    for (const HXValue& element : *list) {
      auto one = withNumbers(element, type);
      if (!one) return std::nullopt;
      converted.push_back(std::move(*one));
    }
    return HXValue(std::move(converted));
  }
  if (const auto* map = value.mapIf()) {
    HXValue::Map converted;
    for (const auto& [name, entry] : *map) {
      auto one = withNumbers(entry, type);
      if (!one) return std::nullopt;
      converted.emplace(name, std::move(*one));
    }
    return HXValue(std::move(converted));
  }
  return value;
}

HXValue withTypesOf(const HXValue& value, const HXValue& before) {
  if (isNumber(value) && isNumber(before)) return asNumber(value, before.getType()).value_or(value);
  if (value.isList() && before.isList() && before.getSize() > 0) {
    HXValue::List typed;
    typed.reserve(value.getSize());
    for (std::size_t i = 0; i < value.getSize(); ++i) {
      typed.push_back(withTypesOf(value[i], before[std::min(i, before.getSize() - 1)]));
    }
    return typed;
  }
  if (value.isMap() && before.isMap()) {
    HXValue::Map typed;
    for (const auto& [name, entry] : value.asMap()) {
      const HXValue* const other = before.find(name);
      typed.emplace(name, other ? withTypesOf(entry, *other) : entry);
    }
    return typed;
  }
  return value;
}

Type numberType(std::string_view name) {
  const std::vector<std::string> names{"int", "int64", "float", "double"};
  constexpr std::array kTypes{Type::Int, Type::Int64, Type::Float, Type::Double};
  const auto found = std::ranges::find(names, name);
  if (found != names.end()) return kTypes[static_cast<std::size_t>(found - names.begin())];
  throw InputError(fmt::format("{} is no type of numbers; there is {}{}", excerpt(name), fmt::join(names, ", "),
                               didYouMean(name, names)));
}

void suitNumbers(const mw::MetaObject& object, const std::string& method, std::vector<HXValue>& arguments) {
  std::optional<Suited> best;
  for (const mw::MetaMethod* candidate : object.findMethods(method)) {
    auto suited = suit(arguments, *candidate);
    // As they are they suit: which overload is then chosen is not our business.
    if (suited && suited->rank == 0) return;
    if (suited && (!best || suited->rank < best->rank)) best = std::move(suited);
  }
  if (best) arguments = std::move(best->arguments);
}

std::vector<mw::AnyReference> references(const std::vector<HXValue>& values) {
  std::vector<mw::AnyReference> all;
  all.reserve(values.size());
  for (const HXValue& value : values) all.push_back(mw::AnyReference::of(value));
  return all;
}

}  // namespace korvo
