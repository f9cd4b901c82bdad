#pragma once

#include <libmw/type.h>

#include <array>
#include <cstddef>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace mw {

class AnyReference;
class AnyValue;

/// A dynamic value does not convert into the type that was asked for. The text names both types, or the number that is
/// out of the range of the type: "300 does not fit uint8".
class HX_API ConversionError : public std::runtime_error {
 public:
  /// @param source   The type that was there; null for no value at all.
  /// @param target   The type that was wanted.
  /// @param context  Said first when not empty, for instance "parameter 2 of insertData".
  ConversionError(const TypeInterface* source, const TypeInterface* target, std::string_view context);
  /// @param given    What was there.
  /// @param target   The type that was wanted.
  /// @param context  As above.
  ConversionError(const AnyReference& given, const TypeInterface* target, std::string_view context);
  ~ConversionError() override;
};

/// Refers to an object of any type, which must outlive the reference. Empty references stand for "void".
///
/// Two words, copied freely.
///
/// @par Threads  As for the object referred to.
class HX_API AnyReference {
 public:
  AnyReference() = default;
  AnyReference(const TypeInterface* type, const void* data) : type_(type), data_(data) {}

  /// @param object  Not copied.
  template <class T>
  static AnyReference of(const T& object) {
    return {typeOf<T>(), &object};
  }

  const TypeInterface* type() const { return type_; }
  const void* data() const { return data_; }
  explicit operator bool() const { return type_ != nullptr; }

  /// The object when it is exactly a T, null otherwise.
  template <class T>
  const T* getIf() const {
    return type_ == typeOf<T>() ? static_cast<const T*>(data_) : nullptr;
  }

  /// What stands inside: the reference itself, or the content of the AnyValue that it refers to, however deep.
  AnyReference content() const;

  /// The object converted to `target`; an empty value where it does not convert.
  AnyValue convert(const TypeInterface* target) const;

  /// The value form; false, with `out` untouched, for objects, pointers and opaque types.
  bool toValue(HX::HXValue& out) const;

  /// How well the object suits a parameter of type `target`. Dynamic content counts as what it holds: an HXValue with
  /// an int inside suits an int exactly.
  Fit fit(const TypeInterface* target) const;

  /// The object as a T.
  /// @throws ConversionError
  template <class T>
  T to() const;

 private:
  const TypeInterface* type_ = nullptr;
  const void* data_ = nullptr;
};

/// Owns an object of any copyable type, or nothing. Small objects (an HXValue, a string, a shared pointer) lie inside
/// the value: a call by name allocates nothing for its result.
class HX_API AnyValue {  // NOLINT(cppcoreguidelines-pro-type-member-init): see storage_
 public:
  // The forwarding constructor is constrained.
  // NOLINTBEGIN(cppcoreguidelines-pro-type-member-init,bugprone-forwarding-reference-overload)
  AnyValue() = default;
  /// @param object  Moved or copied in. A function that returns nothing yields an empty AnyValue.
  template <class T, class D = std::decay_t<T>>
  requires(!std::is_same_v<D, AnyValue> && !std::is_same_v<D, AnyReference>) explicit AnyValue(T&& object) {
    emplace<D>(std::forward<T>(object));
  }
  /// Copies the object that `reference` refers to; of an AnyValue its content, so that they do not nest.
  /// @throws std::runtime_error when its type cannot be copied.
  explicit AnyValue(const AnyReference& reference);
  AnyValue(const AnyValue& other) : AnyValue(other.reference()) {}
  AnyValue(AnyValue&& other) noexcept { take(other); }
  // NOLINTEND(cppcoreguidelines-pro-type-member-init,bugprone-forwarding-reference-overload)
  AnyValue& operator=(AnyValue other) noexcept {
    reset();
    take(other);
    return *this;
  }
  ~AnyValue() { reset(); }

  /// Replaces the content by a T. Moved from or failed, the AnyValue is empty.
  /// @param args  Must not refer to the present content.
  template <class T, class... Args>
  T& emplace(Args&&... args) {
    reset();
    const TypeInterface* type = typeOf<T>();
    T* object = nullptr;
    if constexpr (detail::kFitsInline<T>) {
      object = new (storage_.data()) T(std::forward<Args>(args)...);
    } else {
      void* at = allocate(type);
      try {
        object = new (at) T(std::forward<Args>(args)...);
      } catch (...) {
        release(type);
        throw;
      }
    }
    type_ = type;
    return *object;
  }

  /// Constructs an object of a type known only at run time: `construct(address)` does it, and says whether it did.
  template <class Construct>
  static AnyValue build(const TypeInterface* type, Construct&& construct) {
    AnyValue value;
    void* at = value.allocate(type);
    bool done = false;
    try {
      done = construct(at);
    } catch (...) {
      value.release(type);
      throw;
    }
    if (done) {
      value.type_ = type;
    } else {
      value.release(type);
    }
    return value;
  }

  void reset() noexcept {
    if (type_) destroy();
  }

  const TypeInterface* type() const { return type_; }
  explicit operator bool() const { return type_ != nullptr; }
  AnyReference reference() const { return type_ ? AnyReference(type_, data()) : AnyReference(); }

  template <class T>
  T* getIf() {
    return type_ && type_ == typeOf<T>() ? static_cast<T*>(data()) : nullptr;
  }
  template <class T>
  const T* getIf() const {
    return reference().getIf<T>();
  }

  /// The content as a T: moved out when it is one, converted otherwise. As void it is dropped.
  /// @throws ConversionError
  template <class T>
  T take() && {
    if constexpr (std::is_same_v<T, AnyValue>) {
      return std::move(*this);
    } else if constexpr (!std::is_void_v<T>) {
      if (T* object = getIf<T>()) return std::move(*object);
      return reference().to<T>();
    }
  }

 private:
  void* data() const {
    void* inlined = const_cast<std::byte*>(storage_.data());
    return type_->fitsInline ? inlined : *static_cast<void**>(inlined);
  }
  void setHeap(void* object) { *reinterpret_cast<void**>(storage_.data()) = object; }
  void* allocate(const TypeInterface* type);
  void release(const TypeInterface* type) noexcept;
  void destroy() noexcept;
  /// Into an empty one.
  void take(AnyValue& other) noexcept {
    // Most results are values. Moved here, they need no call through the type; and one that was moved from is invalid,
    // which needs no destruction.
    if (auto* value = other.getIf<HX::HXValue>()) {
      new (storage_.data()) HX::HXValue(std::move(*value));
      type_ = std::exchange(other.type_, nullptr);
    } else if (other.type_) {
      moveFrom(other);
    }
  }
  void moveFrom(AnyValue& other) noexcept;

  const TypeInterface* type_ = nullptr;
  alignas(void*) std::array<std::byte, detail::kInlineSize> storage_;  // not initialised: nothing while type_ is null
};

template <class T>
T AnyReference::to() const {
  if constexpr (std::is_same_v<T, AnyValue>) {
    return AnyValue(content());
  } else {
    const AnyReference inner = content();
    if constexpr (std::is_copy_constructible_v<T>) {
      if (const T* object = inner.getIf<T>()) return *object;
    }
    AnyValue converted = inner.convert(typeOf<T>());
    if (!converted) throw ConversionError(inner, typeOf<T>(), {});
    return std::move(*converted.getIf<T>());
  }
}

template <>
struct TypeTraits<AnyValue> {
  static std::string name() { return "dynamic"; }
  static constexpr TypeKind kind = TypeKind::Dynamic;
  static Fit fit(const HX::HXValue&) { return Fit::Variant; }
  static bool toValue(const AnyValue& from, HX::HXValue& out) { return from.reference().toValue(out); }
  static bool fromValue(const HX::HXValue& value, AnyValue* to) {
    new (to) AnyValue(value);
    return true;
  }
};

/// The arguments of one call or emission, by reference. Valid while the arguments are.
using GenericFunctionParameters = std::span<const AnyReference>;

/// Arguments copied for a call that outlives its caller.
class HX_API OwnedParameters {
 public:
  explicit OwnedParameters(GenericFunctionParameters parameters);
  /// References into this object, which must stay in place meanwhile.
  std::vector<AnyReference> references() const;

 private:
  std::vector<AnyValue> values_;
};

namespace detail {

/// "300 does not fit uint8" where that is why `given` does not become a `wanted`; empty otherwise.
HX_API std::string misfit(const AnyReference& given, const TypeInterface* wanted);

/// @throws std::runtime_error for a null pointer to characters.
HX_API std::string_view textArgument(const char* text);
inline std::string_view textArgument(std::string_view text) { return text; }

/// A type that methods do not name, and of which a value is made: std::array, std::span, …
template <class T>
concept OtherStorable =
    TypeTraits<T>::kind == TypeKind::Opaque && !std::is_convertible_v<const T&, std::string_view> && HX::HXStorable<T>;

/// Keeps an argument in the form in which methods take it: characters become a string, what methods do not name
/// becomes a value if it can, the rest is referred to.
template <class T>
struct Argument {
  explicit Argument(const T& from) : object(from) {}
  AnyReference reference() const { return AnyReference::of(object); }
  const T& object;
};
template <class T>
requires(std::is_convertible_v<const T&, std::string_view> && !std::is_same_v<T, std::string>) struct Argument<T> {
  explicit Argument(const T& from) : object(textArgument(from)) {}
  AnyReference reference() const { return AnyReference::of(object); }
  std::string object;
};
template <OtherStorable T>
struct Argument<T> {
  explicit Argument(const T& from) : object(from) {}
  AnyReference reference() const { return AnyReference::of(object); }
  HX::HXValue object;
};
template <>
struct Argument<AnyReference> {
  explicit Argument(const AnyReference& from) : object(from) {}
  AnyReference reference() const { return object; }
  AnyReference object;
};

/// Calls `use(GenericFunctionParameters)` with references to `args`.
template <class Use, class... Args>
decltype(auto) withParameters(Use&& use, const Args&... args) {
  // The arguments of the inner call live until it returns: string literals get their std::string there.
  return [&](const Argument<Args>&... holders) -> decltype(auto) {
    const std::array<AnyReference, sizeof...(Args)> references{holders.reference()...};
    return use(GenericFunctionParameters(references));
  }(Argument<Args>(args)...);
}

}  // namespace detail
}  // namespace mw
