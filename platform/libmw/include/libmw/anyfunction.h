#pragma once

#include <libmw/anyvalue.h>

#include <functional>
#include <memory>
#include <tuple>
#include <vector>

namespace mw {

/// How a call or a delivery reaches its target. The numbers are part of the interface: 0 is what a method advertised
/// without a wish gets.
enum class MetaCallType : int {
  Auto = 0,    ///< On the caller's thread, unless the target's threading says otherwise.
  Direct = 1,  ///< On the caller's thread.
  Queued = 2,  ///< On the event loop, later; the arguments are copied.
};

namespace detail {

[[noreturn]] HX_API void throwEmptyFunction();

/// A callable whose types are known at run time only.
class HX_API FunctionBase {
 public:
  virtual ~FunctionBase();
  /// @param self        The instance, for members bound to a type rather than to an object; ignored by the others.
  /// @param parameters  The arguments; not kept.
  virtual AnyValue invoke(void* self, GenericFunctionParameters parameters) const = 0;
};

}  // namespace detail

/// A callable of any signature, called with dynamic arguments.
///
/// Copies share the callable. Calling is as thread-safe as the callable is; the AnyFunction itself may be called from
/// any number of threads. The library that the callable came from must stay loaded.
class HX_API AnyFunction {
 public:
  using DynamicFunction = std::function<AnyReference(const std::vector<AnyReference>&)>;
  using ParametersFunction = std::function<void(GenericFunctionParameters)>;
  using TypedFunction = std::function<AnyValue(GenericFunctionParameters)>;

  AnyFunction() = default;

  /// From a lambda, a function pointer or a std::function.
  template <class F>
  static AnyFunction from(F callable);

  /// From a member function, called on `object`, which must outlive the AnyFunction.
  template <class T, class M>
  static AnyFunction from(T* object, M member);

  /// From a member function of a type, called on whichever instance the call names.
  template <class T, class M>
  static AnyFunction ofMember(M member);

  /// From a function that takes its arguments as they come, in any number. Its result is copied.
  static AnyFunction fromDynamicFunction(DynamicFunction function);

  /// The same for a function without a result, which is given the arguments where they lie: nothing is allocated.
  static AnyFunction fromParametersFunction(ParametersFunction function);

  /// From a function whose types are known at run time only, those of another language for instance.
  /// @param parameterTypes  Of `typeOf` or `typeNamed`. A call has as many arguments, and `function` gets each as what
  ///                        it says.
  /// @param returnType      Likewise: what `function` returns is converted into it, and dropped for `void`.
  /// @param function        Gets its arguments by references that are good during the call.
  static AnyFunction fromTypes(std::vector<const TypeInterface*> parameterTypes, const TypeInterface* returnType,
                               TypedFunction function);

  explicit operator bool() const { return function_ != nullptr; }

  /// True for functions that take any number of arguments of any types.
  bool isDynamic() const { return dynamic_; }
  const std::vector<const TypeInterface*>& parameterTypes() const { return parameterTypes_; }
  const TypeInterface* returnType() const { return returnType_; }

  /// Calls with arguments that are converted where they must be.
  /// @return Empty for a function that returns nothing.
  /// @throws std::runtime_error on a wrong number of arguments, and when there is nothing to call; ConversionError;
  ///         whatever the callable throws.
  AnyValue call(GenericFunctionParameters parameters, void* self = nullptr) const {
    if (!function_) detail::throwEmptyFunction();
    return function_->invoke(self, parameters);
  }

  /// How well the arguments suit the parameters: the worst of the single fits.
  Fit fit(GenericFunctionParameters parameters) const;

 private:
  static AnyFunction dynamic(std::shared_ptr<const detail::FunctionBase> function, const TypeInterface* result);

  std::shared_ptr<const detail::FunctionBase> function_;
  std::vector<const TypeInterface*> parameterTypes_;
  const TypeInterface* returnType_ = nullptr;
  bool dynamic_ = false;
};

/// How well `parameters` suit `types`: the worst of the single fits, None when the counts differ.
HX_API Fit fit(GenericFunctionParameters parameters, const std::vector<const TypeInterface*>& types);

}  // namespace mw

#include <libmw/detail/function.h>
