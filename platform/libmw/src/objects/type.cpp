#include <libmw/genericobject.h>
#include <libmw/type.h>

#include <cstdlib>
#include <cxxabi.h>
#include <limits>
#include <memory>
#include <mutex>
#include <type_traits>
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

Fit fitInteger(const HX::HXValue& value, std::int64_t smallest, std::int64_t largest) {
  if (!value.isInt() && !value.isInt64()) return Fit::None;
  const std::int64_t number = value.toInt64();
  if (number < smallest || number > largest) return Fit::None;
  const auto hasRangeOf = [&]<class T>(std::type_identity<T>) {
    return smallest == std::numeric_limits<T>::min() && largest == std::numeric_limits<T>::max();
  };
  const bool isSame =
      value.isInt() ? hasRangeOf(std::type_identity<std::int32_t>{}) : hasRangeOf(std::type_identity<std::int64_t>{});
  return isSame ? Fit::Exact : Fit::Widening;
}

std::string readableName(const std::type_info& type) {
  const std::unique_ptr<char, void (*)(void*)> name(abi::__cxa_demangle(type.name(), nullptr, nullptr, nullptr),
                                                    &std::free);
  return name ? name.get() : type.name();
}

const TypeInterface* registeredType(const TypeInterface& candidate) {
  Registry& all = registry();
  const std::lock_guard lock(all.mutex);
  auto& record = all.types[std::type_index(*candidate.info)];
  if (!record) record = std::make_unique<TypeInterface>(candidate);
  return record.get();
}

}  // namespace mw::detail
