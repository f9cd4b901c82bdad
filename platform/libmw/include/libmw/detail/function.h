#pragma once

// How a C++ callable becomes an AnyFunction. Included by <libmw/anyfunction.h>.

#include <libmw/anyfunction.h>

#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>

namespace mw::detail {

[[noreturn]] HX_API void throwWrongCount(std::size_t given, std::size_t wanted);
[[noreturn]] HX_API void throwWrongArgument(std::size_t index, const AnyReference& given, const TypeInterface* wanted);

/// One argument as its parameter's type: referred to where it is of that type already, converted once otherwise.
template <class T>
class Converted {
 public:
  Converted(const AnyReference& given, std::size_t index) {
    if ((object_ = given.getIf<T>())) return;
    const AnyReference inner = given.content();
    if ((object_ = inner.getIf<T>())) return;
    if constexpr (std::is_same_v<T, std::string>) {
      // A string inside a variant is handed on as it lies there.
      if (const auto* value = inner.getIf<HX::HXValue>()) object_ = value->stringIf();
      if (object_) return;
    }
    own_ = inner.convert(typeOf<T>());
    object_ = own_.template getIf<T>();
    if (!object_) throwWrongArgument(index, inner, typeOf<T>());
  }

  const T& get() const { return *object_; }

 private:
  const T* object_ = nullptr;
  AnyValue own_;
};

/// A function that takes the dynamic value itself.
template <>
class Converted<AnyValue> {
 public:
  Converted(const AnyReference& given, std::size_t) : own_(AnyValue(given.content())) {}
  const AnyValue& get() const { return own_; }

 private:
  AnyValue own_;
};

/// The type as which an argument or a result of type T is carried: views of a text as the text.
template <class T>
struct CarriedAs {
  using Type = T;
};
template <>
struct CarriedAs<std::string_view> {
  using Type = std::string;
};
template <>
struct CarriedAs<const char*> {
  using Type = std::string;
};
template <class T>
using Carried = typename CarriedAs<std::decay_t<T>>::Type;

template <class R, class... P>
struct Signature {
  using Result = R;
  using Parameters = std::tuple<std::type_identity<P>...>;

  static std::vector<const TypeInterface*> parameterTypes() { return {typeOf<Carried<P>>()...}; }
  static const TypeInterface* returnType() { return typeOf<Carried<R>>(); }

  template <class Call>
  static AnyValue invoke(Call&& call, GenericFunctionParameters parameters) {
    if (parameters.size() != sizeof...(P)) throwWrongCount(parameters.size(), sizeof...(P));
    return [&]<std::size_t... I>(std::index_sequence<I...>) {
      if constexpr (std::is_void_v<R>) {
        call(Converted<Carried<P>>(parameters[I], I).get()...);
        return AnyValue();
      } else if constexpr (std::is_same_v<std::decay_t<R>, AnyValue>) {
        return call(Converted<Carried<P>>(parameters[I], I).get()...);
      } else if constexpr (!std::is_same_v<Carried<R>, std::decay_t<R>>) {
        // Made a text before what it looks at may go.
        return AnyValue(std::string(textArgument(call(Converted<Carried<P>>(parameters[I], I).get()...))));
      } else {
        return AnyValue(call(Converted<Carried<P>>(parameters[I], I).get()...));
      }
    }
    (std::index_sequence_for<P...>());
  }
};

template <class T>
struct SignatureOf : SignatureOf<decltype(&T::operator())> {};
template <class R, class... P>
struct SignatureOf<R (*)(P...)> : Signature<R, P...> {};
template <class R, class... P>
struct SignatureOf<R (*)(P...) noexcept> : Signature<R, P...> {};
template <class R, class T, class... P>
struct SignatureOf<R (T::*)(P...)> : Signature<R, P...> {};
template <class R, class T, class... P>
struct SignatureOf<R (T::*)(P...) const> : Signature<R, P...> {};
template <class R, class T, class... P>
struct SignatureOf<R (T::*)(P...) noexcept> : Signature<R, P...> {};
template <class R, class T, class... P>
struct SignatureOf<R (T::*)(P...) const noexcept> : Signature<R, P...> {};

template <class F>
class CallableFunction final : public FunctionBase {
 public:
  explicit CallableFunction(F callable) : callable_(std::move(callable)) {}
  AnyValue invoke(void*, GenericFunctionParameters parameters) const override {
    return SignatureOf<F>::invoke(callable_, parameters);
  }

 private:
  mutable F callable_;
};

template <class T, class M>
class BoundMember final : public FunctionBase {
 public:
  BoundMember(T* object, M member) : object_(object), member_(member) {}
  AnyValue invoke(void*, GenericFunctionParameters parameters) const override {
    return SignatureOf<M>::invoke(
        [this](const auto&... args) -> decltype(auto) { return (object_->*member_)(args...); }, parameters);
  }

 private:
  T* object_;
  M member_;
};

template <class T, class M>
class TypeMember final : public FunctionBase {
 public:
  explicit TypeMember(M member) : member_(member) {}
  AnyValue invoke(void* self, GenericFunctionParameters parameters) const override {
    T* object = static_cast<T*>(self);
    return SignatureOf<M>::invoke(
        [this, object](const auto&... args) -> decltype(auto) { return (object->*member_)(args...); }, parameters);
  }

 private:
  M member_;
};

}  // namespace mw::detail

namespace mw {

template <class F>
AnyFunction AnyFunction::from(F callable) {
  AnyFunction made;
  made.function_ = std::make_shared<detail::CallableFunction<F>>(std::move(callable));
  made.parameterTypes_ = detail::SignatureOf<F>::parameterTypes();
  made.returnType_ = detail::SignatureOf<F>::returnType();
  return made;
}

template <class T, class M>
AnyFunction AnyFunction::from(T* object, M member) {
  AnyFunction made;
  made.function_ = std::make_shared<detail::BoundMember<T, M>>(object, member);
  made.parameterTypes_ = detail::SignatureOf<M>::parameterTypes();
  made.returnType_ = detail::SignatureOf<M>::returnType();
  return made;
}

template <class T, class M>
AnyFunction AnyFunction::ofMember(M member) {
  AnyFunction made;
  made.function_ = std::make_shared<detail::TypeMember<T, M>>(member);
  made.parameterTypes_ = detail::SignatureOf<M>::parameterTypes();
  made.returnType_ = detail::SignatureOf<M>::returnType();
  return made;
}

}  // namespace mw
