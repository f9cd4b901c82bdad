#include <libmw/anyvalue.h>
#include <libmw/genericobject.h>

#include <fmt/format.h>

namespace mw {
namespace {

std::string describe(const TypeInterface* type) { return type ? type->name : "nothing"; }

}  // namespace

ConversionError::ConversionError(const TypeInterface* source, const TypeInterface* target, std::string_view context)
    : std::runtime_error(fmt::format("{}{}cannot convert {} to {}", context, context.empty() ? "" : ": ",
                                     describe(source), describe(target))) {}

ConversionError::~ConversionError() = default;

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
  if (!text) throw std::runtime_error("an argument is a null pointer to characters");
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
