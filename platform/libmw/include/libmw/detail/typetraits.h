#pragma once

// The types that every module may use in its methods. Included by <libmw/type.h>.

#include <libmw/type.h>

#include <algorithm>
#include <concepts>
#include <limits>
#include <new>
#include <optional>
#include <stdexcept>

namespace mw {

template <>
struct TypeTraits<void> {
  static std::string name() { return "void"; }
  static constexpr TypeKind kind = TypeKind::Void;
};

namespace detail {

/// A scalar or a string: one HXValue type holds exactly this C++ type.
template <class T, TypeKind kindOfT, HX::HXValue::Type valueType>
struct PlainTraits {
  static constexpr TypeKind kind = kindOfT;
  static Fit fit(const HX::HXValue& value) { return value.getType() == valueType ? Fit::Exact : Fit::None; }
  static bool toValue(const T& from, HX::HXValue& out) {
    out = HX::HXValue(from);
    return true;
  }
};

/// `value` as a T; the caller has seen that it fits.
template <class T>
T fromFittingValue(const HX::HXValue& value) {
  union Place {
    // Defaulted they would be deleted. Whether there is an object to destroy is known below only.
    Place() {}   // NOLINT(modernize-use-equals-default)
    ~Place() {}  // NOLINT(modernize-use-equals-default)
    T object;
  } place;
  if (!TypeTraits<T>::fromValue(value, &place.object)) {
    throw std::logic_error("a value that fits a " + TypeTraits<T>::name() + " does not convert to one");
  }
  const struct Destroyer {
    ~Destroyer() { object.~T(); }
    T& object;
  } destroyer{place.object};
  return std::move(place.object);
}

/// How well `value` suits an integer of this range: exactly where it is of the type that has this range.
HX_API Fit fitInteger(const HX::HXValue& value, std::int64_t smallest, std::int64_t largest);

/// Scoped enums, and others whose declaration states the type of their numbers: only those are made of a number so.
template <class T>
concept HasUnderlyingType = std::is_enum_v<T> && requires {
  T{std::underlying_type_t<T>{}};
};

}  // namespace detail

template <>
struct TypeTraits<bool> : detail::PlainTraits<bool, TypeKind::Bool, HX::HXValue::Type::Bool> {
  static std::string name() { return "bool"; }
  static bool fromValue(const HX::HXValue& value, bool* to) {
    if (!value.isBool()) return false;
    *to = value.asBool();
    return true;
  }
};

template <>
struct TypeTraits<int> : detail::PlainTraits<int, TypeKind::Int, HX::HXValue::Type::Int> {
  static std::string name() { return "int"; }
  static bool fromValue(const HX::HXValue& value, int* to) {
    if (!value.isInt()) return false;
    *to = value.asInt();
    return true;
  }
};

/// The other integers, by their width. Each takes every integer that is in its range, and travels as the narrower of
/// the two types of value that hold all of its own.
template <std::integral T>
struct TypeTraits<T> {
  static std::string name() {
    const std::string sign = std::is_signed_v<T> ? "" : "u";
    return sign + (sizeof(T) == sizeof(int) ? "int" : "int" + std::to_string(8 * sizeof(T)));
  }
  static constexpr TypeKind kind =
      std::numeric_limits<T>::digits <= std::numeric_limits<int>::digits ? TypeKind::Int : TypeKind::Int64;
  static Fit fit(const HX::HXValue& value) {
    using Limits = std::numeric_limits<T>;
    return detail::fitInteger(value, static_cast<std::int64_t>(Limits::min()), kLargest);
  }
  static bool toValue(T from, HX::HXValue& out) {
    out = HX::HXValue(from);
    return true;
  }
  static bool fromValue(const HX::HXValue& value, T* to) {
    if (fit(value) == Fit::None) return false;
    *to = static_cast<T>(value.toInt64());
    return true;
  }

 private:
  /// Of those that a value holds.
  static constexpr std::int64_t kLargest = std::numeric_limits<T>::digits < std::numeric_limits<std::int64_t>::digits
                                               ? static_cast<std::int64_t>(std::numeric_limits<T>::max())
                                               : std::numeric_limits<std::int64_t>::max();
};

/// An enum with an underlying type of its own is its number; that a number is one of the enumerators is not checked.
template <class T>
requires detail::HasUnderlyingType<T>
struct TypeTraits<T> {
  using Number = std::underlying_type_t<T>;
  static std::string name() { return TypeTraits<Number>::name(); }
  static constexpr TypeKind kind = TypeTraits<Number>::kind;
  static Fit fit(const HX::HXValue& value) { return TypeTraits<Number>::fit(value); }
  static bool toValue(T from, HX::HXValue& out) { return TypeTraits<Number>::toValue(static_cast<Number>(from), out); }
  static bool fromValue(const HX::HXValue& value, T* to) {
    Number number{};
    if (!TypeTraits<Number>::fromValue(value, &number)) return false;
    *to = static_cast<T>(number);
    return true;
  }
};

template <>
struct TypeTraits<float> : detail::PlainTraits<float, TypeKind::Float, HX::HXValue::Type::Float> {
  static std::string name() { return "float"; }
  static bool fromValue(const HX::HXValue& value, float* to) {
    if (!value.isFloat()) return false;
    *to = value.asFloat();
    return true;
  }
};

template <>
struct TypeTraits<double> : detail::PlainTraits<double, TypeKind::Double, HX::HXValue::Type::Double> {
  static std::string name() { return "double"; }
  static Fit fit(const HX::HXValue& value) {
    return value.isDouble() ? Fit::Exact : value.isFloat() || value.isInt() ? Fit::Widening : Fit::None;
  }
  static bool fromValue(const HX::HXValue& value, double* to) {
    if (fit(value) == Fit::None) return false;
    *to = value.toDouble();
    return true;
  }
};

template <>
struct TypeTraits<std::string> : detail::PlainTraits<std::string, TypeKind::String, HX::HXValue::Type::String> {
  static std::string name() { return "string"; }
  static bool fromValue(const HX::HXValue& value, std::string* to) {
    if (!value.isString()) return false;
    new (to) std::string(value.asString());
    return true;
  }
};

template <>
struct TypeTraits<HX::HXValue::Binary>
    : detail::PlainTraits<HX::HXValue::Binary, TypeKind::Binary, HX::HXValue::Type::Binary> {
  static std::string name() { return "binary"; }
  static bool fromValue(const HX::HXValue& value, HX::HXValue::Binary* to) {
    if (!value.isBinary()) return false;
    new (to) HX::HXValue::Binary(value.asBinary());
    return true;
  }
};

template <>
struct TypeTraits<HX::HXValue> {
  static std::string name() { return "value"; }
  static constexpr TypeKind kind = TypeKind::Value;
  static Fit fit(const HX::HXValue&) { return Fit::Variant; }
  static bool toValue(const HX::HXValue& from, HX::HXValue& out) {
    out = from;
    return true;
  }
  static bool fromValue(const HX::HXValue& value, HX::HXValue* to) {
    new (to) HX::HXValue(value);
    return true;
  }
};

template <class T>
requires detail::ConvertsFromValue<T>
struct TypeTraits<std::vector<T>> {
  static std::string name() { return "list<" + TypeTraits<T>::name() + ">"; }
  static constexpr TypeKind kind = TypeKind::List;
  static Fit fit(const HX::HXValue& value) {
    if (!value.isList()) return Fit::None;
    Fit worst = Fit::Exact;
    for (const HX::HXValue& element : value.asList()) worst = std::max(worst, TypeTraits<T>::fit(element));
    return worst;
  }
  static bool toValue(const std::vector<T>& from, HX::HXValue& out) {
    HX::HXValue::List list(from.size());
    for (std::size_t i = 0; i < from.size(); ++i) {
      const T& element = from[i];  // Through a reference, since vector<bool> hands out proxies.
      if (!TypeTraits<T>::toValue(element, list[i])) return false;
    }
    out = HX::HXValue(std::move(list));
    return true;
  }
  static bool fromValue(const HX::HXValue& value, std::vector<T>* to) {
    if (fit(value) == Fit::None) return false;
    std::vector<T> elements;
    elements.reserve(value.getSize());
    for (const HX::HXValue& element : value.asList()) elements.push_back(detail::fromFittingValue<T>(element));
    new (to) std::vector<T>(std::move(elements));
    return true;
  }
};

template <class T, class Less>
requires detail::ConvertsFromValue<T>
struct TypeTraits<std::map<std::string, T, Less>> {
  using Entries = std::map<std::string, T, Less>;
  static std::string name() { return "map<" + TypeTraits<T>::name() + ">"; }
  static constexpr TypeKind kind = TypeKind::Map;
  static Fit fit(const HX::HXValue& value) {
    if (!value.isMap()) return Fit::None;
    Fit worst = Fit::Exact;
    for (const auto& [key, element] : value.asMap()) worst = std::max(worst, TypeTraits<T>::fit(element));
    return worst;
  }
  static bool toValue(const Entries& from, HX::HXValue& out) {
    HX::HXValue::Map map;
    for (const auto& [key, element] : from) {
      if (!TypeTraits<T>::toValue(element, map[key])) return false;
    }
    out = HX::HXValue(std::move(map));
    return true;
  }
  static bool fromValue(const HX::HXValue& value, Entries* to) {
    if (fit(value) == Fit::None) return false;
    Entries elements;
    for (const auto& [key, element] : value.asMap()) elements.emplace(key, detail::fromFittingValue<T>(element));
    new (to) Entries(std::move(elements));
    return true;
  }
};

/// A T, or nothing: the invalid value, nil on the wire.
template <class T>
requires detail::ConvertsFromValue<T>
struct TypeTraits<std::optional<T>> {
  static std::string name() { return "optional<" + TypeTraits<T>::name() + ">"; }
  static constexpr TypeKind kind = TypeKind::Value;
  static Fit fit(const HX::HXValue& value) { return value.isValid() ? TypeTraits<T>::fit(value) : Fit::Exact; }
  static bool toValue(const std::optional<T>& from, HX::HXValue& out) {
    if (from) return TypeTraits<T>::toValue(*from, out);
    out = HX::HXValue();
    return true;
  }
  static bool fromValue(const HX::HXValue& value, std::optional<T>* to) {
    if (fit(value) == Fit::None) return false;
    new (to) std::optional<T>();
    if (value.isValid()) to->emplace(detail::fromFittingValue<T>(value));
    return true;
  }
};

/// A pointer means something only inside this process, so it converts into nothing.
template <class T>
struct TypeTraits<T*> {
  static std::string name() { return "pointer<" + TypeTraits<std::remove_cv_t<T>>::name() + ">"; }
  static constexpr TypeKind kind = TypeKind::Pointer;
};

}  // namespace mw
