#pragma once

#include <hxerror/api.h>
#include <hxvalue/hxvalue.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <vector>

/// The type system: what the middleware must know of a C++ type to carry it through a call by name.
///
/// `HX::HXValue` is the hub. A type converts to it and from it, or not at all; two types convert into each other by
/// way of it, so that n types need n pairs of conversions. Conversions never lose anything: a bool is not an int, a
/// double is not a float, and 3.5 is no integer.
///
/// Records live as long as the process and compare by address; they may be used from any thread.

namespace mw {

class AnyObject;

enum class TypeKind : std::uint8_t {
  Void,
  Bool,
  Int,
  Int64,
  Float,
  Double,
  String,
  Binary,
  List,
  Map,
  Value,    ///< HX::HXValue: any of the above, known only at run time.
  Dynamic,  ///< mw::AnyValue: anything, objects and pointers included.
  Pointer,
  Object,
  Opaque,  ///< A type that the middleware can hold and hand over, and cannot convert.
};

/// How well a value suits a type; smaller is better. Overloads are chosen by it.
enum class Fit : std::uint8_t {
  Exact,     ///< The same type.
  Widening,  ///< Another type that holds every value of the given one: int to int64 or double, float to double.
  Variant,   ///< The type takes any value.
  None,
};

/// What the middleware knows of one type. Obtain it with `typeOf<T>()`.
struct TypeInterface {
  const std::type_info* info;
  std::string name;  ///< As people read it in signatures and errors: "string", "list<int>".
  TypeKind kind;
  std::size_t size;
  std::size_t alignment;
  bool fitsInline;  ///< May live inside an AnyValue rather than on the heap.

  void (*copy)(void* to, const void* from);  ///< Null for types that cannot be copied.
  void (*move)(void* to, void* from);        ///< Null for types that cannot be moved either.
  void (*destroy)(void* at);

  /// How well `value` suits this type, looking at its content.
  Fit (*fit)(const HX::HXValue& value);
  /// Writes the object at `from` into `out`; false where the type has no value form.
  bool (*toValue)(const void* from, HX::HXValue& out);
  /// Constructs an object at `to` from `value`; false, with nothing constructed, unless `fit(value)` allows it.
  bool (*fromValue)(const HX::HXValue& value, void* to);
  /// The object that the one at `from` stands for; null for types that stand for none.
  AnyObject (*toObject)(const void* from);
  /// Constructs at `to` what `object` stands for in this process; false where it is of another type.
  bool (*fromObject)(const AnyObject& object, void* to);
};

namespace detail {
/// The name of a type as it stands in source code.
HX_API std::string readableName(const std::type_info& type);
}  // namespace detail

/// What `TypeInterface` says of a type, stated by specialisation. A type of your own becomes convertible by one:
///
///     template <> struct mw::TypeTraits<Pose> {
///       static std::string name() { return "Pose"; }
///       static constexpr TypeKind kind = TypeKind::List;
///       static Fit fit(const HX::HXValue& value);
///       static bool toValue(const Pose& pose, HX::HXValue& out);
///       static bool fromValue(const HX::HXValue& value, Pose* raw);  // constructs at raw
///     };
///
/// The primary template describes an opaque type.
template <class T>
struct TypeTraits {
  static std::string name() { return detail::readableName(typeid(T)); }
  static constexpr TypeKind kind = TypeKind::Opaque;
};

namespace detail {

/// The one record of a type in this process, whichever library asks first: the template below is instantiated in each
/// library that uses the type, and addresses are compared.
HX_API const TypeInterface* registeredType(const TypeInterface& candidate);

template <class T>
const TypeInterface* makeType();

}  // namespace detail

/// @return The record of `T`, the same in every library of the process. `void` has one too.
template <class T>
const TypeInterface* typeOf() {
  static const TypeInterface* const type = detail::makeType<std::remove_cv_t<T>>();
  return type;
}

/// The type that signatures show under a name: "list<double>".
/// @param name  As `TypeInterface::name`.
/// @return Null where no type that methods of modules use has that name: types of your own are not found so.
/// @par Threads  Any.
HX_API const TypeInterface* typeNamed(std::string_view name);

namespace detail {

inline constexpr std::size_t kInlineSize = 32;

/// Whether an AnyValue holds a T inside itself. Moving such an AnyValue moves the T, so it must not throw.
template <class T>
inline constexpr bool kFitsInline = sizeof(T) <= kInlineSize &&
                                    alignof(T) <= alignof(void*) && std::is_nothrow_move_constructible_v<T>;

template <class T>
concept ConvertsToValue = requires(const T& from, HX::HXValue& out) {
  TypeTraits<T>::toValue(from, out);
};
template <class T>
concept ConvertsFromValue = requires(const HX::HXValue& value, T* to) {
  TypeTraits<T>::fromValue(value, to);
};
template <class T>
concept ConvertsToObject = requires(const T& from) {
  TypeTraits<T>::toObject(from);
};
template <class T>
concept ConvertsFromObject = requires(const AnyObject& from, T* to) {
  TypeTraits<T>::fromObject(from, to);
};

template <class T>
const TypeInterface* makeType() {
  TypeInterface type{};
  type.info = &typeid(T);
  type.name = TypeTraits<T>::name();
  type.kind = TypeTraits<T>::kind;
  if constexpr (!std::is_void_v<T>) {
    type.size = sizeof(T);
    type.alignment = alignof(T);
    type.fitsInline = kFitsInline<T>;
    if constexpr (std::is_copy_constructible_v<T>) {
      type.copy = [](void* to, const void* from) { new (to) T(*static_cast<const T*>(from)); };
    }
    if constexpr (std::is_move_constructible_v<T>) {
      type.move = [](void* to, void* from) { new (to) T(std::move(*static_cast<T*>(from))); };
    }
    type.destroy = [](void* at) { static_cast<T*>(at)->~T(); };
    if constexpr (ConvertsToValue<T>) {
      type.toValue = [](const void* from, HX::HXValue& out) {
        return TypeTraits<T>::toValue(*static_cast<const T*>(from), out);
      };
    }
    if constexpr (ConvertsFromValue<T>) {
      type.fit = [](const HX::HXValue& value) { return TypeTraits<T>::fit(value); };
      type.fromValue = [](const HX::HXValue& value, void* to) {
        return TypeTraits<T>::fromValue(value, static_cast<T*>(to));
      };
    }
    if constexpr (ConvertsToObject<T>) {
      type.toObject = [](const void* from) { return TypeTraits<T>::toObject(*static_cast<const T*>(from)); };
    }
    if constexpr (ConvertsFromObject<T>) {
      type.fromObject = [](const AnyObject& from, void* to) {
        return TypeTraits<T>::fromObject(from, static_cast<T*>(to));
      };
    }
  }
  return registeredType(type);
}

}  // namespace detail
}  // namespace mw

#include <libmw/detail/typetraits.h>
