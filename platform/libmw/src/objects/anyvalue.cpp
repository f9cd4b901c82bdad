#include <libmw/anyvalue.h>
#include <libmw/genericobject.h>

#include <fmt/format.h>

namespace mw {
namespace {

std::string describe(const TypeInterface* type) { return type ? type->name : "nothing"; }

std::string cannotConvert(const TypeInterface* source, const TypeInterface* target) {
  return fmt::format("cannot convert {} to {}", describe(source), describe(target));
}

std::string inContext(std::string_view context, const std::string& text) {
  return fmt::format("{}{}{}", context, context.empty() ? "" : ": ", text);
}

std::string whyNot(const AnyReference& given, const TypeInterface* target, std::string_view context) {
  const std::string misfit = detail::misfit(given, target);
  return inContext(context, misfit.empty() ? cannotConvert(given.type(), target) : misfit);
}

}  // namespace

ConversionError::ConversionError(const TypeInterface* source, const TypeInterface* target, std::string_view context)
    : std::runtime_error(inContext(context, cannotConvert(source, target))) {}

ConversionError::ConversionError(const AnyReference& given, const TypeInterface* target, std::string_view context)
    : std::runtime_error(whyNot(given, target, context)) {}

ConversionError::~ConversionError() = default;

std::string detail::misfit(const AnyReference& given, const TypeInterface* wanted) {
  // An integer type that takes a number of either width takes all that are in its range.
  const bool isInteger = wanted->kind == TypeKind::Int || wanted->kind == TypeKind::Int64;
  if (!isInteger || !wanted->fit || wanted->fit(HX::HXValue(std::int64_t{1})) == Fit::None) return {};
  HX::HXValue value;
  if (!given.toValue(value) || (!value.isInt() && !value.isInt64())) return {};
  return wanted->fit(value) == Fit::None ? fmt::format("{} does not fit {}", value.toInt64(), wanted->name) : "";
}

AnyReference AnyReference::content() const {
  AnyReference inner = *this;
  while (const auto* holder = inner.getIf<AnyValue>()) inner = holder->reference();
  return inner;
}

bool AnyReference::toValue(HX::HXValue& out) const { return type_ && type_->toValue && type_->toValue(data_, out); }

AnyValue AnyReference::convert(const TypeInterface* target) const {
  const AnyReference from = content();
  if (!from || !target) return AnyValue();
  if (from.type_ == target || target->kind == TypeKind::Dynamic) return AnyValue(from);
  if (from.type_->toObject && target->fromObject) {
    const AnyObject object = from.type_->toObject(from.data_);
    return AnyValue::build(target, [&](void* at) { return target->fromObject(object, at); });
  }
  HX::HXValue value;
  if (!target->fromValue || !from.toValue(value)) return AnyValue();
  return AnyValue::build(target, [&](void* at) { return target->fromValue(value, at); });
}

Fit AnyReference::fit(const TypeInterface* target) const {
  if (type_ == target && target->kind < TypeKind::Value) return Fit::Exact;  // Most arguments of most calls.
  const AnyReference from = content();
  if (target->kind == TypeKind::Dynamic) return Fit::Variant;
  if (!from) return Fit::None;
  if (const auto* value = from.getIf<HX::HXValue>()) return target->fit ? target->fit(*value) : Fit::None;
  if (from.type_ == target) return Fit::Exact;
  if (from.type_->toObject && target->fromObject) return from.convert(target) ? Fit::Exact : Fit::None;
  HX::HXValue value;
  return target->fit && from.toValue(value) ? target->fit(value) : Fit::None;
}

// storage_ holds nothing until type_ is set.
// NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init)
AnyValue::AnyValue(const AnyReference& outer) {
  const AnyReference reference = outer.content();
  if (!reference) return;
  const TypeInterface* type = reference.type();
  if (!type->copy) throw std::runtime_error(fmt::format("a {} cannot be copied", type->name));
  *this = build(type, [&](void* at) {
    type->copy(at, reference.data());
    return true;
  });
}

void AnyValue::destroy() noexcept {
  const TypeInterface* type = std::exchange(type_, nullptr);
  type->destroy(type->fitsInline ? storage_.data() : *reinterpret_cast<void**>(storage_.data()));
  release(type);
}

void* AnyValue::allocate(const TypeInterface* type) {
  if (type->fitsInline) return storage_.data();
  void* memory = ::operator new (type->size, std::align_val_t{type->alignment});
  setHeap(memory);
  return memory;
}

void AnyValue::release(const TypeInterface* type) noexcept {
  if (type->fitsInline) return;
  ::operator delete (*reinterpret_cast<void**>(storage_.data()), std::align_val_t{type->alignment});
}

void AnyValue::moveFrom(AnyValue& other) noexcept {
  const TypeInterface* type = other.type_;
  if (type->fitsInline) {
    type->move(storage_.data(), other.storage_.data());
    other.destroy();
  } else {
    storage_ = other.storage_;
    other.type_ = nullptr;
  }
  type_ = type;
}

std::string_view detail::textArgument(const char* text) {
  if (!text) throw std::runtime_error("a null pointer to characters is no text");
  return text;
}

OwnedParameters::OwnedParameters(GenericFunctionParameters parameters) {
  values_.reserve(parameters.size());
  for (const AnyReference& parameter : parameters) values_.emplace_back(parameter);
}

std::vector<AnyReference> OwnedParameters::references() const {
  std::vector<AnyReference> references;
  references.reserve(values_.size());
  for (const AnyValue& value : values_) references.push_back(value.reference());
  return references;
}

}  // namespace mw
