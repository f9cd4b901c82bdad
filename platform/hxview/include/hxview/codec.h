#pragma once

#include <hxerror/api.h>
#include <hxvalue/hxvalue.h>
#include <hxview/layout.h>

#include <array>
#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <type_traits>
#include <vector>

/// How published bytes become the types of a program. Strict, as everywhere: a float is no double, a bool no int. The
/// elements of a list may be of another type of number where nothing is lost.
namespace HX::view {

/// What lies in a cell.
template <class T>
concept Scalar = std::same_as<T, bool> || std::same_as<T, std::int32_t> || std::same_as<T, std::int64_t> ||
    std::same_as<T, float> || std::same_as<T, double>;

template <class T>
struct FixedListOf : std::false_type {};
template <Scalar Element, std::size_t size>
struct FixedListOf<std::array<Element, size>> : std::true_type {
  static constexpr std::size_t kSize = size;
};

/// A list of as many elements as the type says; and of any number.
template <class T>
concept FixedList = FixedListOf<T>::value;
template <class T>
concept List = requires {
  typename T::value_type;
}
&&std::same_as<T, std::vector<typename T::value_type>>&& Scalar<typename T::value_type>;

/// What can be viewed.
template <class T>
concept Viewable = Scalar<T> || std::same_as<T, std::string> || std::same_as<T, HXValue::Binary> ||
    std::same_as<T, HXValue> || FixedList<T> || List<T>;

/// A number out of a list.
struct Number {
  enum class Form : std::uint8_t { Bool, Int, Float, Double } form = Form::Int;
  std::int64_t integer = 0;
  double decimal = 0;
};
/// @param bytes  MessagePack; moved behind what was read.
/// @return Nothing when there is no number.
HX_API std::optional<Number> readNumber(std::span<const std::byte>& bytes) noexcept;
/// @param bytes  MessagePack; moved behind what was read.
/// @return How many elements follow; nothing when there is no list.
HX_API std::optional<std::size_t> readListSize(std::span<const std::byte>& bytes) noexcept;
/// @param kind   Says of what type.
/// @param bytes  What was published.
/// @param value  As it was when this fails.
/// @return Whether it was a value.
HX_API bool decode(const Kind& kind, std::span<const std::byte> bytes, HXValue& value);

template <Scalar T>
constexpr HXValue::Type typeOf() noexcept {
  if constexpr (std::same_as<T, bool>) return HXValue::Type::Bool;
  if constexpr (std::same_as<T, std::int32_t>) return HXValue::Type::Int;
  if constexpr (std::same_as<T, std::int64_t>) return HXValue::Type::Int64;
  if constexpr (std::same_as<T, float>) return HXValue::Type::Float;
  return HXValue::Type::Double;
}

/// @param bits   Of a scalar of that type.
/// @param value  What they say.
template <Scalar T>
void decode(std::uint64_t bits, T& value) noexcept {
  if constexpr (std::same_as<T, bool>) {
    value = (bits & 0xffU) != 0;
  } else if constexpr (sizeof(T) == sizeof bits) {
    value = std::bit_cast<T>(bits);
  } else {
    value = std::bit_cast<T>(static_cast<std::uint32_t>(bits));
  }
}

/// @param number   Of a list.
/// @param element  Of the type that is wanted.
/// @return False when it loses something.
template <Scalar T>
bool assign(const Number& number, T& element) noexcept {
  using Form = Number::Form;
  if constexpr (std::same_as<T, bool>) {
    element = number.integer != 0;
    return number.form == Form::Bool;
  } else if constexpr (std::integral<T>) {
    element = static_cast<T>(number.integer);
    return number.form == Form::Int && element == number.integer;
  } else {
    const bool isInteger = number.form == Form::Int;
    // As many digits as every double has.
    constexpr std::int64_t kExact = std::int64_t{1} << std::numeric_limits<T>::digits;
    if (isInteger && (number.integer > kExact || number.integer < -kExact)) return false;
    element = isInteger ? static_cast<T>(number.integer) : static_cast<T>(number.decimal);
    return isInteger || number.form == Form::Float || (number.form == Form::Double && std::same_as<T, double>);
  }
}

/// Decodes a list out of a ring.
/// @param kind   Says of what type; its state is Present.
/// @param bytes  MessagePack.
/// @param value  Means nothing when this fails, but for its room.
/// @return False when it is of another type.
template <class T>
requires FixedList<T> || List<T>
bool decode(const Kind& kind, std::span<const std::byte> bytes, T& value) {
  if (kind.type != HXValue::Type::List) return false;
  const auto size = readListSize(bytes);
  if (!size || *size > bytes.size()) return false;  // Each element has a byte at least.
  if constexpr (FixedList<T>) {
    if (*size != FixedListOf<T>::kSize) return false;
  } else {
    value.resize(*size);
  }
  for (std::size_t i = 0; i < *size; ++i) {
    const auto number = readNumber(bytes);
    typename T::value_type element{};  // A vector of bools lends no references.
    if (!number || !assign(*number, element)) return false;
    value[i] = element;
  }
  return true;
}

}  // namespace HX::view
