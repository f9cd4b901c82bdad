#pragma once

#include <libmw/dynamicobject.h>

#include <typeinfo>
#include <utility>

namespace mw {

/// Makes shared pointers to `type` convert to objects with the members that `description` states. Registering a type
/// again replaces its description for objects made from then on. Any thread.
HX_API void registerType(const std::type_info& type, std::shared_ptr<const ObjectType> description);

/// Describes the objects of a C++ type to the middleware.
///
///     ObjectTypeBuilder<Door> builder;
///     builder.setThreadingModel(ObjectThreadingModel::MultiThread);
///     builder.advertiseMethod("open", &Door::open);
///     builder.advertiseSignal("opened", &Door::opened);
///     builder.registerType();
///
/// Usually run by a static initialiser of the library that defines T, which must then stay loaded.
template <class T>
class ObjectTypeBuilder {
 public:
  explicit ObjectTypeBuilder(std::string typeName = TypeTraits<T>::name()) {
    builder_.setTypeName(std::move(typeName));
  }

  ObjectTypeBuilder& setThreadingModel(ObjectThreadingModel model) {
    builder_.setThreadingModel(model);
    return *this;
  }

  template <class M>
  ObjectTypeBuilder& advertiseMethod(std::string name, M member, std::string description = {}) {
    builder_.advertiseMethod(MetaMethodBuilder(std::move(name), {}, std::move(description)),
                             AnyFunction::ofMember<T>(member));
    return *this;
  }

  template <class S>
  ObjectTypeBuilder& advertiseSignal(std::string name, S T::*member) {
    builder_.advertiseSignal(std::move(name), S().signature(),
                             [member](void* self) -> SignalBase& { return static_cast<T*>(self)->*member; });
    return *this;
  }

  /// @param registerNow  Also does what `registerType` does.
  std::shared_ptr<const ObjectType> buildFor(bool registerNow) {
    auto type = builder_.build();
    if (registerNow) mw::registerType(typeid(T), type);
    return type;
  }

  void registerType() { buildFor(true); }

 private:
  ObjectBuilder builder_;
};

}  // namespace mw
