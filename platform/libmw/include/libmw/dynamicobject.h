#pragma once

#include <hxauthor/author.h>
#include <libmw/genericobject.h>

#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace mw {

namespace detail {
class QueuedCall;
}

/// How calls on one object run.
enum class ObjectThreadingModel : int {
  SingleThread = 0,  ///< One at a time: the middleware holds a recursive lock of the object around each call.
  MultiThread = 1,   ///< In parallel, on whichever threads they come.
};

/// The members of a kind of object: what each id of the meta-object stands for. Immutable once built, and shared by
/// all objects of the kind.
class HX_API ObjectType {
 public:
  using SignalOf = std::function<SignalBase&(void* self)>;

  const MetaObject& metaObject() const { return metaObject_; }
  ObjectThreadingModel threadingModel() const { return threadingModel_; }
  /// Null when the id is not a method's.
  const AnyFunction* method(unsigned id) const;
  /// Null when the id is not a signal's.
  const SignalOf* signal(unsigned id) const;

 private:
  friend class ObjectBuilder;
  struct Member {
    AnyFunction method;
    SignalOf signal;
  };

  MetaObject metaObject_;
  ObjectThreadingModel threadingModel_ = ObjectThreadingModel::SingleThread;
  std::vector<Member> members_;
};

/// Collects the members of an object or of a kind of object. Used by one thread, before the object is shared.
class HX_API ObjectBuilder {
 public:
  ObjectBuilder& setTypeName(std::string name);
  ObjectBuilder& setDescription(std::string description);
  ObjectBuilder& setThreadingModel(ObjectThreadingModel model);

  /// @return The id of the new method.
  /// @throws std::runtime_error when `function` is empty, when more parameters are documented than it takes, and when
  ///         a method of that name with these types is there already.
  unsigned advertiseMethod(const MetaMethodBuilder& description, AnyFunction function,
                           MetaCallType callType = MetaCallType::Auto);
  /// A method bound to an object, which must outlive what is built.
  template <class T, class M>
  unsigned advertiseMethod(const MetaMethodBuilder& description, T* object, M member,
                           MetaCallType callType = MetaCallType::Auto) {
    return advertiseMethod(description, AnyFunction::from(object, member), callType);
  }
  unsigned advertiseSignal(std::string name, std::string signature, ObjectType::SignalOf signal);
  /// A signal that belongs to the object being built.
  unsigned advertiseSignal(std::string name, SignalBase& signal);
  unsigned advertiseProperty(std::string name);

  /// Whether a method of that name was advertised.
  bool hasMethod(std::string_view name) const;

  /// Hands the collected members out and leaves the builder empty.
  std::shared_ptr<const ObjectType> build();

 private:
  MetaObject::Members members_;
  ObjectThreadingModel threadingModel_ = ObjectThreadingModel::SingleThread;
  std::vector<ObjectType::Member> table_;
};

/// An object of this process whose members are stated at run time.
///
/// Either a class derives from it and describes itself (as modules do), or it stands for an instance of a registered
/// type. Calls run on the caller's thread unless they are queued.
class HX_API DynamicObject : public GenericObject {
 public:
  DynamicObject();
  /// Stands for `instance`, which it shares.
  DynamicObject(std::shared_ptr<const ObjectType> type, std::shared_ptr<void> instance);
  ~DynamicObject() override;

  void setMetaObject(MetaObject metaObject) override;
  Future<AnyValue> metaCall(unsigned method, GenericFunctionParameters parameters,
                            MetaCallType callType = MetaCallType::Auto) override;
  /// Errors of a signal's trigger reach the caller.
  void metaPost(unsigned member, GenericFunctionParameters parameters) override;
  Future<SignalLink> metaConnect(unsigned signal, const SignalSubscriber& subscriber) override;
  Future<void> metaDisconnect(SignalLink link) override;
  Future<AnyValue> metaProperty(unsigned property) override;
  Future<void> metaSetProperty(unsigned property, const AnyValue& value) override;

  /// The instance that the object stands for; null for classes that describe themselves.
  const std::shared_ptr<void>& instance() const { return instance_; }

 protected:
  /// States the members. Called once, before the object is shared.
  void setType(std::shared_ptr<const ObjectType> type);
  /// States in whose name the methods act, before there are calls. Nobody in particular, as at first: in the name of
  /// whoever calls.
  /// @param author  Of what they write.
  void setAuthor(HX::Author author) { author_ = std::move(author); }
  const HX::Author& author() const { return author_; }

 private:
  struct State;
  Future<AnyValue> invoke(unsigned method, const AnyFunction& function, GenericFunctionParameters parameters);
  std::shared_ptr<detail::QueuedCall> queued(unsigned method, GenericFunctionParameters parameters);
  SignalBase& requireSignal(unsigned id) const;
  bool hasProperty(unsigned id) const;
  std::exception_ptr noSuchProperty(unsigned id) const;

  std::shared_ptr<const ObjectType> type_;
  std::shared_ptr<void> instance_;
  HX::Author author_;
  std::unique_ptr<State> state_;
};

}  // namespace mw
