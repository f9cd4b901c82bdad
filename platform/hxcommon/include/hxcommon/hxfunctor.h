#pragma once

#include <hxcommon/detail/bindable.h>
#include <libmw/anyfunction.h>

#include <memory>
#include <utility>

namespace HX {

/// A method of a module, ready to be bound as one overload of a name. Immutable; shared by whoever binds it.
class HXFunctorBase {
 public:
  explicit HXFunctorBase(mw::AnyFunction function) : function_(std::move(function)) {}
  const mw::AnyFunction& function() const { return function_; }

 private:
  mw::AnyFunction function_;
};

/// @param object  Must outlive the functor.
/// @param member  Member function of T; for one of several overloads, cast it to the wanted type. What it may take and
///                return stands at `HXModuleCore::bindMethod`.
template <class T, class M>
std::shared_ptr<const HXFunctorBase> createFunctor(T* object, M member) {
  if constexpr (detail::isBindable<T, M>()) {
    return std::make_shared<const HXFunctorBase>(mw::AnyFunction::from(object, member));
  } else {
    return nullptr;
  }
}

}  // namespace HX
