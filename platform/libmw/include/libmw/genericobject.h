#pragma once

#include <libmw/future.h>
#include <libmw/metaobject.h>
#include <libmw/signal.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

namespace mw {

/// Anything that can be called by name: a module, a typed object, a service of another process.
///
/// The virtual operations work with ids of the meta-object; the members below them work with names. Objects are owned
/// by shared pointers. Unless an object says otherwise, every operation may be used from any thread.
class HX_API GenericObject : public std::enable_shared_from_this<GenericObject> {
 public:
  GenericObject() = default;
  GenericObject(const GenericObject&) = delete;
  GenericObject& operator=(const GenericObject&) = delete;
  virtual ~GenericObject();

  /// States what the object offers. Called once, before the object is shared.
  virtual void setMetaObject(MetaObject metaObject);
  /// Calls a method.
  /// @return The result; failures, those of the method itself included, are the future's. Ready at once when the call
  ///         ran on the caller's thread.
  virtual Future<AnyValue> metaCall(unsigned method, GenericFunctionParameters parameters,
                                    MetaCallType callType = MetaCallType::Auto) = 0;
  /// Triggers a signal, or calls a method whose result nobody wants.
  virtual void metaPost(unsigned member, GenericFunctionParameters parameters) = 0;
  /// @return Complete only when later emissions will arrive.
  virtual Future<SignalLink> metaConnect(unsigned signal, const SignalSubscriber& subscriber) = 0;
  virtual Future<void> metaDisconnect(SignalLink link) = 0;
  virtual Future<AnyValue> metaProperty(unsigned property) = 0;
  virtual Future<void> metaSetProperty(unsigned property, const AnyValue& value) = 0;

  /// Whether calls leave this process.
  virtual bool isRemote() const { return false; }

  const MetaObject& metaObject() const { return metaObject_; }

  /// What a member is called in the log: "Door.opened".
  std::string memberName(unsigned id) const;

  /// Calls `method` and waits for its result. Overloads are chosen as `MetaObject::resolve` says.
  /// @throws What the method throws; std::runtime_error when there is no such method, no overload fits, the object is
  ///         gone, or the result does not convert into R.
  template <class R = void, class... Args>
  R call(std::string_view method, const Args&... args) {
    return detail::withParameters(
        [&](GenericFunctionParameters parameters) -> R {
          return callNow(metaObject_.resolve(method, parameters).id, parameters).template take<R>();
        },
        args...);
  }

  /// Calls `method` without waiting. Failures, also of the choice among overloads, are the future's.
  ///
  /// What one thread calls and posts to one object starts in the order made, each after the one before has ended; so a
  /// `call` waits for what the thread has posted before. A call that is made from inside another one does not wait for
  /// what that posted, which may need what it holds.
  ///
  /// A call to another process leaves at once, or with others in a `Batch`. Behind one that does not return a call
  /// waits for ever; after five seconds the process of the object names both in the log.
  template <class... Args>
  Future<AnyValue> async(std::string_view method, const Args&... args) {
    return detail::withParameters([&](GenericFunctionParameters parameters) { return callLater(method, parameters); },
                                  args...);
  }

  /// Triggers the signal `name`, or calls the method of that name if there is no such signal.
  ///
  /// A signal is triggered at once, in another process too, and what its trigger throws reaches the caller. A method is
  /// called without waiting, and a failure of it is logged (category "mw.object", warning) by the object's process.
  template <class... Args>
  void post(std::string_view name, const Args&... args) {
    detail::withParameters([&](GenericFunctionParameters parameters) { postByName(name, parameters); }, args...);
  }

  /// `metaCall` for a thread that waits for the result at once: from another process it is read by the thread itself.
  /// @throws As `call`.
  AnyValue callNow(unsigned method, GenericFunctionParameters parameters);

  /// The same for a thread that looks after something else now and then.
  /// @param method      Its id.
  /// @param parameters  The arguments; not kept.
  /// @param limit       How long to wait.
  /// @return Still running where that was too short: to be waited for again, or cancelled.
  Future<AnyValue> callFor(unsigned method, GenericFunctionParameters parameters, std::chrono::milliseconds limit);

  /// Connects to a signal. @see metaConnect
  /// @throws std::runtime_error naming the signal when there is none.
  Future<SignalLink> connect(std::string_view signal, const SignalSubscriber& subscriber);
  Future<SignalLink> connect(unsigned signal, const SignalSubscriber& subscriber);
  Future<void> disconnect(SignalLink link) { return metaDisconnect(link); }

  /// The same for every handle on one object, and different for any two objects that exist at once in this process.
  std::uintptr_t identity() const {
    return reinterpret_cast<std::uintptr_t>(identity_.load(std::memory_order_relaxed));
  }

  /// The same for every handle on one object in every process, to be shown to people. Two objects seldom have the same.
  std::uint32_t number() const;

 protected:
  /// For objects that stand for an instance.
  void setIdentity(const void* object) { identity_.store(object, std::memory_order_relaxed); }
  /// For handles on an object: it is that object from now on.
  void standFor(const GenericObject& object);
  /// The failure of `metaDisconnect` where there is no such connection.
  Future<void> noSuchLink(SignalLink link) const;
  /// For what stands for an object of another process: its number there.
  void setNumber(std::uint32_t number) { number_.store(number, std::memory_order_relaxed); }

 private:
  Future<AnyValue> callLater(std::string_view method, GenericFunctionParameters parameters);
  void postByName(std::string_view name, GenericFunctionParameters parameters);

  MetaObject metaObject_;
  // A handle may come to stand for another object while it is used.
  std::atomic<const void*> identity_{this};
  std::atomic<std::uint32_t> number_{0};  ///< 0: that of the identity.
};

/// A shared handle on an object, or on none. Using an empty one throws "This object is null".
class HX_API AnyObject {
 public:
  AnyObject() = default;
  explicit AnyObject(std::shared_ptr<GenericObject> object) : object_(std::move(object)) {}

  /// From an instance of a type that an ObjectTypeBuilder registered, or of a class derived from GenericObject.
  /// @throws std::runtime_error naming the type when it is not registered.
  template <class T>
  static AnyObject from(std::shared_ptr<T> instance);

  explicit operator bool() const { return object_ != nullptr; }
  GenericObject* operator->() const { return &get(); }
  /// @throws std::runtime_error "This object is null"
  GenericObject& get() const;
  const std::shared_ptr<GenericObject>& pointer() const { return object_; }
  void reset() { object_.reset(); }

  friend bool operator==(const AnyObject& a, const AnyObject& b) {
    return a.object_ == b.object_ || (a && b && a->identity() == b->identity());
  }

 private:
  std::shared_ptr<GenericObject> object_;
};

namespace detail {
/// Wraps an instance in the object that its registered type describes; empty when the type is not registered.
HX_API AnyObject makeTypedObject(const std::type_info& type, std::shared_ptr<void> instance);
/// The instance behind a typed object of this process; empty when it is of another type.
HX_API std::shared_ptr<void> typedInstance(const AnyObject& object, const std::type_info& type);
[[noreturn]] HX_API void throwUnregisteredType(const std::type_info& type);
}  // namespace detail

template <class T>
AnyObject AnyObject::from(std::shared_ptr<T> instance) {
  if (!instance) return AnyObject();
  if constexpr (std::is_base_of_v<GenericObject, T>) {
    return AnyObject(std::move(instance));
  } else {
    AnyObject object = detail::makeTypedObject(typeid(T), std::move(instance));
    if (!object) detail::throwUnregisteredType(typeid(T));
    return object;
  }
}

template <>
struct TypeTraits<AnyObject> {
  static std::string name() { return "object"; }
  static constexpr TypeKind kind = TypeKind::Object;
  static AnyObject toObject(const AnyObject& from) { return from; }
  static bool fromObject(const AnyObject& object, AnyObject* to) {
    new (to) AnyObject(object);
    return true;
  }
};

template <class T>
struct TypeTraits<std::shared_ptr<T>> {
  static std::string name() { return "object"; }
  static constexpr TypeKind kind = TypeKind::Object;
  static AnyObject toObject(const std::shared_ptr<T>& from) { return AnyObject::from(from); }
  static bool fromObject(const AnyObject& object, std::shared_ptr<T>* to) {
    std::shared_ptr<T> instance;
    if constexpr (std::is_base_of_v<GenericObject, T>) {
      instance = std::dynamic_pointer_cast<T>(object.pointer());
    } else {
      instance = std::static_pointer_cast<T>(detail::typedInstance(object, typeid(T)));
    }
    if (object && !instance) return false;
    new (to) std::shared_ptr<T>(std::move(instance));
    return true;
  }
};

}  // namespace mw