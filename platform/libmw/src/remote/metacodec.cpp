#include "metacodec.h"

#include "wire.h"

#include <hxerror/hxerror.h>
#include <hxerror/mutex.h>
#include <libmw/genericobject.h>
#include <libmw/remoteerror.h>

#include <algorithm>
#include <map>
#include <memory>
#include <stdexcept>
#include <tuple>
#include <utility>
#include <vector>

#include <fmt/format.h>

namespace mw {

RemoteError::~RemoteError() = default;
ConnectionLostError::~ConnectionLostError() = default;
NoSuchServiceError::~NoSuchServiceError() = default;
TooLargeError::~TooLargeError() = default;
NoSuchMethodError::~NoSuchMethodError() = default;

namespace remote {
namespace {

using HX::HXValue;

/// Kinds of runtime error that have a type of their own.
constexpr const char* kConnection = "connection";
constexpr const char* kService = "service";
constexpr const char* kMethod = "method";

/// Types of other processes that this one does not know. Calls with them are judged there.
Fit fitsList(const HXValue& value) { return value.isList() ? Fit::Variant : Fit::None; }
Fit fitsMap(const HXValue& value) { return value.isMap() ? Fit::Variant : Fit::None; }
Fit fitsAny(const HXValue& /*value*/) { return Fit::Variant; }

const TypeInterface* foreignType(const std::string& name, TypeKind kind) {
  using Key = std::tuple<std::string, TypeKind>;
  static HX::Mutex mutex;
  static auto* const known HX_GUARDED_BY(mutex) =
      new std::map<Key, std::unique_ptr<TypeInterface>>;  // Records live as long as the process.
  const HX::MutexLock lock(mutex);
  // Since they are never given back, peers cannot make them without end. What has no record of its own is called by
  // its kind.
  static constexpr std::size_t kMost = 4096;
  static constexpr std::size_t kLongest = 256;
  const bool isKept = name.size() <= kLongest && (known->size() < kMost || known->contains({name, kind}));
  auto& record = (*known)[{isKept ? name : "…", kind}];
  if (!record) {
    TypeInterface made{};
    made.info = &typeid(void);
    made.name = name;
    made.kind = kind;
    record = std::make_unique<TypeInterface>(std::move(made));
    if (kind == TypeKind::List) record->fit = fitsList;
    if (kind == TypeKind::Map) record->fit = fitsMap;
    if (kind != TypeKind::List && kind != TypeKind::Map && kind != TypeKind::Pointer) record->fit = fitsAny;
  }
  return record.get();
}

const TypeInterface* typeOrForeign(const std::string& name, TypeKind kind) {
  const TypeInterface* const known = typeNamed(name);
  return known && known->kind == kind ? known : foreignType(name, kind);
}

HXValue typeValue(const TypeInterface* type) {
  if (!type) return {};
  return HXValue::List{type->name, static_cast<int>(type->kind)};
}

const HXValue& part(const HXValue& list, std::size_t index) {
  if (!list.isList() || index >= list.getSize()) throw ProtocolError("a description of an object lacks a part");
  return list.asList()[index];
}

std::string textOf(const HXValue& value) {
  if (!value.isString()) throw ProtocolError("a description of an object has no text where one belongs");
  return value.asString();
}

/// In any integer format.
int numberOf(const HXValue& value) {
  if (value.isInt()) return value.asInt();
  if (!value.isInt64() || !std::in_range<int>(value.asInt64())) {
    throw ProtocolError("a description of an object has no number where one belongs");
  }
  return static_cast<int>(value.asInt64());
}

const HXValue::List& listOf(const HXValue& value) {
  if (!value.isList()) throw ProtocolError("a description of an object has no list where one belongs");
  return value.asList();
}

unsigned idOf(const HXValue& value) {
  // The largest id decides how long a table of them is.
  static constexpr int kLargest = 0xfff;
  const int id = numberOf(value);
  if (id < 0 || id > kLargest) throw ProtocolError("a description of an object has an id out of range");
  return static_cast<unsigned>(id);
}

const TypeInterface* typeFrom(const HXValue& value) {
  if (!value.isValid()) return typeOf<void>();
  const int kind = numberOf(part(value, 1));
  if (kind < 0 || kind > static_cast<int>(TypeKind::Opaque)) throw ProtocolError("an unknown kind of type");
  return typeOrForeign(textOf(part(value, 0)), static_cast<TypeKind>(kind));
}

void requireUniqueIds(const MetaObject::Members& members) {
  std::vector<unsigned> ids;
  for (const auto& method : members.methods) ids.push_back(method.id);
  for (const auto& signal : members.signals) ids.push_back(signal.id);
  for (const auto& property : members.properties) ids.push_back(property.id);
  std::ranges::sort(ids);
  if (std::ranges::adjacent_find(ids) != ids.end()) {
    throw ProtocolError("a description of an object has an id twice");
  }
}

HXValue parameterValue(const MetaParameter& parameter) { return HXValue::List{parameter.name, parameter.description}; }

MetaParameter parameterFrom(const HXValue& value) { return {textOf(part(value, 0)), textOf(part(value, 1))}; }

HXValue methodValue(const MetaMethod& method) {
  HXValue::List types;
  for (const TypeInterface* type : method.types) types.push_back(typeValue(type));
  HXValue::List parameters;
  for (const MetaParameter& parameter : method.parameters) parameters.push_back(parameterValue(parameter));
  return HXValue::List{static_cast<int>(method.id),
                       method.name,
                       HXValue(std::move(types)),
                       typeValue(method.resultType),
                       method.dynamic,
                       method.flags,
                       method.module,
                       method.description,
                       HXValue(std::move(parameters)),
                       method.result ? parameterValue(*method.result) : HXValue()};
}

MetaMethod methodFrom(const HXValue& value) {
  MetaMethod method;
  method.id = idOf(part(value, 0));
  method.name = textOf(part(value, 1));
  for (const HXValue& type : listOf(part(value, 2))) method.types.push_back(typeFrom(type));
  method.resultType = typeFrom(part(value, 3));
  method.dynamic = part(value, 4).isBool() && part(value, 4).asBool();
  method.flags = numberOf(part(value, 5));
  method.module = textOf(part(value, 6));
  method.description = textOf(part(value, 7));
  for (const HXValue& parameter : listOf(part(value, 8))) method.parameters.push_back(parameterFrom(parameter));
  if (part(value, 9).isValid()) method.result = parameterFrom(part(value, 9));
  return method;
}

}  // namespace

HXValue toValue(const MetaObject& metaObject) {
  HXValue::List methods;
  for (const MetaMethod& method : metaObject.methods()) methods.push_back(methodValue(method));
  HXValue::List signals;
  for (const MetaSignal& signal : metaObject.signals()) {
    signals.push_back(HXValue::List{static_cast<int>(signal.id), signal.name, signal.signature});
  }
  HXValue::List properties;
  for (const MetaProperty& property : metaObject.properties()) {
    properties.push_back(HXValue::List{static_cast<int>(property.id), property.name});
  }
  return HXValue::List{metaObject.typeName(), metaObject.description(), HXValue(std::move(methods)),
                       HXValue(std::move(signals)), HXValue(std::move(properties))};
}

MetaObject metaObjectFrom(const HXValue& value) {
  MetaObject::Members members;
  members.typeName = textOf(part(value, 0));
  members.description = textOf(part(value, 1));
  for (const HXValue& method : listOf(part(value, 2))) members.methods.push_back(methodFrom(method));
  for (const HXValue& signal : listOf(part(value, 3))) {
    members.signals.push_back({idOf(part(signal, 0)), textOf(part(signal, 1)), textOf(part(signal, 2))});
  }
  for (const HXValue& property : listOf(part(value, 4))) {
    members.properties.push_back({idOf(part(property, 0)), textOf(part(property, 1))});
  }
  requireUniqueIds(members);
  return MetaObject(std::move(members));
}

HXValue toValue(const std::exception_ptr& error) {
  try {
    std::rethrow_exception(error);
  } catch (const HX::HXError& one) {
    return HXValue::List{"HXError", one.message(), one.module(), one.method(), one.file(), one.line()};
  } catch (const ConnectionLostError& one) {
    return HXValue::List{"runtime", one.what(), kConnection};
  } catch (const NoSuchServiceError& one) {
    return HXValue::List{"runtime", one.what(), kService};
  } catch (const NoSuchMethodError& one) {
    return HXValue::List{"runtime", one.what(), kMethod};
  } catch (const std::runtime_error& one) {
    return HXValue::List{"runtime", one.what()};
  } catch (...) {
    return HXValue::List{"other", detail::describe(error)};
  }
}

std::exception_ptr errorFrom(const HXValue& value) {
  const auto text = [&](std::size_t index) {
    const bool isText = value.isList() && index < value.getSize() && value.asList()[index].isString();
    return isText ? value.asList()[index].asString() : std::string();
  };
  if (!value.isList()) {
    return std::make_exception_ptr(std::runtime_error(value.isString() ? value.asString() : value.toString()));
  }
  const std::string family = text(0);
  if (family == "HXError") {
    const bool hasLine = value.getSize() > 5 && value.asList()[5].isInt();
    return std::make_exception_ptr(
        HX::HXError(text(2), text(3), text(1), text(4), hasLine ? value.asList()[5].asInt() : 0));
  }
  if (family == "runtime") {
    const std::string kind = text(2);
    if (kind == kConnection) return std::make_exception_ptr(ConnectionLostError(text(1)));
    if (kind == kService) return std::make_exception_ptr(NoSuchServiceError(text(1)));
    if (kind == kMethod) return std::make_exception_ptr(NoSuchMethodError(text(1)));
    return std::make_exception_ptr(std::runtime_error(text(1)));
  }
  return std::make_exception_ptr(RemoteError(text(1)));
}

}  // namespace remote
}  // namespace mw
