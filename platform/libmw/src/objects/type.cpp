#include <hxerror/mutex.h>
#include <libmw/genericobject.h>
#include <libmw/type.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cxxabi.h>
#include <limits>
#include <map>
#include <memory>
#include <type_traits>
#include <typeindex>
#include <unordered_map>
#include <vector>

namespace mw::detail {
namespace {

struct Registry {
  HX::Mutex mutex;
  std::unordered_map<std::type_index, std::unique_ptr<TypeInterface>> types HX_GUARDED_BY(mutex);
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
  const HX::MutexLock lock(all.mutex);
  auto& record = all.types[std::type_index(*candidate.info)];
  if (!record) record = std::make_unique<TypeInterface>(candidate);
  return record.get();
}

}  // namespace mw::detail

namespace mw {

const TypeInterface* typeNamed(std::string_view name) {
  using HX::HXValue;
  static const std::array known{typeOf<void>(),
                                typeOf<bool>(),
                                typeOf<int>(),
                                typeOf<std::int64_t>(),
                                typeOf<std::int8_t>(),
                                typeOf<std::uint8_t>(),
                                typeOf<std::int16_t>(),
                                typeOf<std::uint16_t>(),
                                typeOf<std::uint32_t>(),
                                typeOf<std::uint64_t>(),
                                typeOf<float>(),
                                typeOf<double>(),
                                typeOf<std::string>(),
                                typeOf<HXValue::Binary>(),
                                typeOf<HXValue>(),
                                typeOf<AnyValue>(),
                                typeOf<AnyObject>(),
                                typeOf<std::vector<bool>>(),
                                typeOf<std::vector<int>>(),
                                typeOf<std::vector<std::int64_t>>(),
                                typeOf<std::vector<float>>(),
                                typeOf<std::vector<double>>(),
                                typeOf<std::vector<std::string>>(),
                                typeOf<std::vector<HXValue>>(),
                                typeOf<std::map<std::string, bool>>(),
                                typeOf<std::map<std::string, std::int64_t>>(),
                                typeOf<std::map<std::string, double>>(),
                                typeOf<std::map<std::string, std::string>>(),
                                typeOf<std::map<std::string, HXValue>>()};
  const auto found = std::ranges::find_if(known, [&](const TypeInterface* type) { return type->name == name; });
  return found == known.end() ? nullptr : *found;
}

}  // namespace mw
