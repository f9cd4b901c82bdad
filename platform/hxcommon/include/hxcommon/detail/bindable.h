#pragma once

// What a method must be to be bound, said in one sentence where it is not. Included by the headers that bind.

#include <libmw/anyfunction.h>

#include <tuple>
#include <type_traits>

namespace HX::detail {

/// Whether calls can carry a T: what only this process could hand over, no caller could state.
template <class T>
constexpr bool isCarried() {
  return mw::TypeTraits<T>::kind != mw::TypeKind::Opaque;
}

/// An enum of which nobody has said what type its numbers are.
template <class T>
constexpr bool isLooseEnum() {
  return std::is_enum_v<T> && !isCarried<T>();
}

/// A parameter that the method might write to, or move from.
template <class P>
constexpr bool isWrittenTo() {
  return std::is_lvalue_reference_v<P> ? !std::is_const_v<std::remove_reference_t<P>> : std::is_rvalue_reference_v<P>;
}

/// Does not compile unless a method with these types can be bound.
/// @return Whether it can, so that nothing more is said of one that cannot.
template <class T, class M, class R, class... P>
constexpr bool requireBindable(std::tuple<std::type_identity<P>...>) {
  constexpr bool statesItsEnums = !(isLooseEnum<std::decay_t<R>>() || ... || isLooseEnum<std::decay_t<P>>());
  constexpr bool takesValues = !statesItsEnums || (isCarried<mw::detail::Carried<P>>() && ...);
  constexpr bool returnsValue = !statesItsEnums || isCarried<mw::detail::Carried<R>>();
  constexpr bool onlyReads = (!isWrittenTo<P>() && ...);
  constexpr bool isSound = statesItsEnums && takesValues && returnsValue && onlyReads;
  constexpr bool suitsObject = !isSound || std::is_invocable_v<M, T*, const mw::detail::Carried<P>&...>;
  static_assert(statesItsEnums,
                "A bound method has an enum without an underlying type: declare it as `enum class Name : int`.");
  static_assert(takesValues,
                "A bound method takes a type that calls cannot carry; HXModuleCore::bindMethod says what they can.");
  static_assert(returnsValue,
                "A bound method returns a type that calls cannot carry; HXModuleCore::bindMethod says what they can.");
  static_assert(onlyReads, "A bound method takes its parameters by value or by reference to const.");
  static_assert(suitsObject, "A bound method cannot be called on the object that it is bound to.");
  return isSound && suitsObject;
}

template <class T, class M>
constexpr bool isBindable() {
  constexpr bool isMemberFunction = std::is_member_function_pointer_v<M>;
  static_assert(isMemberFunction, "What is bound is a member function, given as &Class::method.");
  if constexpr (isMemberFunction) {
    using Signature = mw::detail::SignatureOf<M>;
    return requireBindable<T, M, typename Signature::Result>(typename Signature::Parameters{});
  } else {
    return false;
  }
}

}  // namespace HX::detail
