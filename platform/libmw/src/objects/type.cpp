#include <libmw/genericobject.h>
#include <libmw/type.h>

#include <mutex>
#include <typeindex>
#include <unordered_map>

namespace mw::detail {
namespace {

struct Registry {
  std::mutex mutex;  // Guards `types`.
  std::unordered_map<std::type_index, std::unique_ptr<TypeInterface>> types;
};

Registry& registry() {
  static Registry* const instance = new Registry;  // Never destroyed: records outlive every static object.
  return *instance;
}

}  // namespace

const TypeInterface* registeredType(const TypeInterface& candidate) {
  Registry& all = registry();
  const std::lock_guard lock(all.mutex);
  auto& record = all.types[std::type_index(*candidate.info)];
  if (!record) record = std::make_unique<TypeInterface>(candidate);
  return record.get();
}

}  // namespace mw::detail
