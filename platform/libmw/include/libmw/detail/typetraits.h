#pragma once

// The types that every module may use in its methods. Included by <libmw/type.h>.

#include <libmw/type.h>

#include <algorithm>
#include <limits>
#include <new>
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

template <>
struct TypeTraits<std::int64_t> : detail::PlainTraits<std::int64_t, TypeKind::Int64, HX::HXValue::Type::Int64> {
  static std::string name() { return "int64"; }
  static Fit fit(const HX::HXValue& value) {
    return value.isInt64() ? Fit::Exact : value.isInt() ? Fit::Widening : Fit::None;
  }
  static bool fromValue(const HX::HXValue& value, std::int64_t* to) {
    if (fit(value) == Fit::None) return false;
    *to = value.isInt64() ? value.asInt64() : value.asInt();
    return true;
  }
};

/// Travels as a 64-bit int, and takes every integer that is in its range.
template <>
struct TypeTraits<std::uint32_t> {
  static std::string name() { return "uint"; }
  static constexpr TypeKind kind = TypeKind::Int64;
  static Fit fit(const HX::HXValue& value) {
    if (!value.isInt() && !value.isInt64()) return Fit::None;
    const std::int64_t number = value.toInt64();
    return number >= 0 && number <= std::numeric_limits<std::uint32_t>::max() ? Fit::Widening : Fit::None;
  }
  static bool toValue(std::uint32_t from, HX::HXValue& out) {
    out = HX::HXValue(from);
    return true;
  }
  static bool fromValue(const HX::HXValue& value, std::uint32_t* to) {
    if (fit(value) == Fit::None) return false;
    *to = static_cast<std::uint32_t>(value.toInt64());
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

template <class T>
requires detail::ConvertsFromValue<T>
struct TypeTraits<std::map<std::string, T>> {
  static std::string name() { return "map<" + TypeTraits<T>::name() + ">"; }
  static constexpr TypeKind kind = TypeKind::Map;
  static Fit fit(const HX::HXValue& value) {
    if (!value.isMap()) return Fit::None;
    Fit worst = Fit::Exact;
    for (const auto& [key, element] : value.asMap()) worst = std::max(worst, TypeTraits<T>::fit(element));
    return worst;
  }
  static bool toValue(const std::map<std::string, T>& from, HX::HXValue& out) {
    HX::HXValue::Map map;
    for (const auto& [key, element] : from) {
      if (!TypeTraits<T>::toValue(element, map[key])) return false;
    }
    out = HX::HXValue(std::move(map));
    return true;
  }
  static bool fromValue(const HX::HXValue& value, std::map<std::string, T>* to) {
    if (fit(value) == Fit::None) return false;
    std::map<std::string, T> elements;
    for (const auto& [key, element] : value.asMap()) elements.emplace(key, detail::fromFittingValue<T>(element));
    new (to) std::map<std::string, T>(std::move(elements));
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
