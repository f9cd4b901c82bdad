#include "servicehandle.h"

#include <hxerror/mutex.h>
#include <libmw/objecttypebuilder.h>

#include <typeindex>
#include <unordered_map>

#include <fmt/format.h>

namespace mw {
namespace {

struct Registry {
  HX::Mutex mutex;
  std::unordered_map<std::type_index, std::shared_ptr<const ObjectType>> types HX_GUARDED_BY(mutex);
};

Registry& registry() {
  static Registry* const instance = new Registry;  // Never destroyed: libraries register from static initialisers.
  return *instance;
}

/// The object that an instance of a registered type is shown as. It knows the type, so that a shared pointer taken out
/// again is one of the right type.
class TypedObject final : public DynamicObject {
 public:
  TypedObject(const std::type_info& type, std::shared_ptr<const ObjectType> description, std::shared_ptr<void> instance)
      : DynamicObject(std::move(description), std::move(instance)), type_(type) {}

  const std::type_info& type() const { return type_; }

 private:
  const std::type_info& type_;
};

}  // namespace

void registerType(const std::type_info& type, std::shared_ptr<const ObjectType> description) {
  Registry& all = registry();
  const HX::MutexLock lock(all.mutex);
  std::swap(all.types[std::type_index(type)], description);
}

namespace detail {

AnyObject makeTypedObject(const std::type_info& type, std::shared_ptr<void> instance) {
  Registry& all = registry();
  std::shared_ptr<const ObjectType> description;
  {
    const HX::MutexLock lock(all.mutex);
    const auto found = all.types.find(std::type_index(type));
    if (found == all.types.end()) return AnyObject();
    description = found->second;
  }
  return AnyObject(std::make_shared<TypedObject>(type, std::move(description), std::move(instance)));
}

std::shared_ptr<void> typedInstance(const AnyObject& object, const std::type_info& type) {
  const auto* const handle = dynamic_cast<const ServiceHandle*>(object.pointer().get());
  const auto typed = std::dynamic_pointer_cast<TypedObject>(handle ? handle->target().pointer() : object.pointer());
  return typed && typed->type() == type ? typed->instance() : nullptr;
}

void throwUnregisteredType(const std::type_info& type) {
  throw std::runtime_error(fmt::format("type {} is not registered with the middleware", readableName(type)));
}

}  // namespace detail
}  // namespace mw
