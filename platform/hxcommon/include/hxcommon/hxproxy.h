#pragma once

#include <hxauthor/author.h>
#include <hxerror/api.h>
#include <hxvalue/hxvalue.h>
#include <libmw/genericobject.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

namespace HX {

class HXBroker;

/// Calls a module by the names of its methods, wherever the module runs.
///
/// A proxy does not keep its module: once the module has left its broker, calls fail with a runtime error that names
/// it. Overloads are chosen by the number of arguments, then by exact types, then by a conversion that loses nothing;
/// a parameter of type HXValue takes whatever no other overload wants.
///
/// @par Threads  Any number of threads may use one proxy at once. Calls run on the caller's thread for modules of this
/// process, and return when the method has.
class HX_API HXProxy {
 public:
  /// What a subscription keeps between its notifications: (method id + 1, meta-object uid), or (0, 0) before the first.
  using CallState = std::pair<std::int32_t, std::int32_t>;

  /// @param service     The module's object, as a session's look-up gives it.
  /// @param moduleName  Name of the module, for errors.
  /// @param author      In whose name the calls are made; nobody in particular: of whoever calls.
  /// @param broker      By which it was found, for what needs more than calls; not kept alive.
  HXProxy(mw::AnyObject service, std::string moduleName, Author author = {}, std::weak_ptr<HXBroker> broker = {});

  const std::string& moduleName() const { return moduleName_; }
  /// The broker by which it was found. Empty when that has gone, or is not known.
  std::shared_ptr<HXBroker> findBroker() const { return broker_.lock(); }
  /// The module's object: its meta-object, its signals, asynchronous calls.
  mw::AnyObject asObject() const { return object_; }

  /// Calls `method` with `args` and waits for the result.
  ///
  ///     proxy->call<HXValue>("getData", "Battery");
  ///     proxy->call("insertData", "Battery", 17);
  ///
  /// @return The method's result as an R.
  /// @throws What the method throws, HXError with its five fields included; std::runtime_error naming the method when
  ///         it does not exist or no overload takes these arguments, and naming the module when it is gone.
  template <class R = void, class... Args>
  R call(std::string_view method, const Args&... args) const {
    const Author::Scope inTheOwnersName(author_);
    return object_->call<R>(method, args...);
  }

  /// Calls a subscriber's callback with (key, value, message).
  ///
  /// What fits no message to a subscriber in another process is not told it, which a warning says that names the key
  /// and the size; it is no failure, for the subscriber can be told the next value. Whatever came from another process
  /// fits.
  ///
  /// @param method   Of the module behind this proxy.
  /// @param key      The event's name.
  /// @param value    What it was raised with.
  /// @param message  What the subscription gave.
  /// @param state  Slot of this subscription, (0, 0) at first. It spares the next call the look-up of the method, for
  ///               as long as the module offers the same methods.
  /// @throws As `call`.
  void pCallNotify(const std::string& method, const std::string& key, const HXValue& value, const HXValue& message,
                   CallState* state) const;

 private:
  void notify(const std::string& method, mw::GenericFunctionParameters parameters, CallState* state) const;

  mw::AnyObject object_;
  std::string moduleName_;
  Author author_;
  std::weak_ptr<HXBroker> broker_;
};

}  // namespace HX
