// Addresses of scalars: a value's own place, shared with those to whom its address was handed out.

#include <hxvalue/hxvalue.h>

namespace HX {

namespace {

template <typename Scalar>
void storeRelaxed(Scalar& place, Scalar content) noexcept {
  std::atomic_ref<Scalar>(place).store(content, std::memory_order_relaxed);
}

// std::atomic_ref takes no const object; reading through it changes nothing.
template <typename Scalar>
Scalar loadRelaxed(const Scalar& place) noexcept {
  return std::atomic_ref<Scalar>(const_cast<Scalar&>(place)).load(std::memory_order_relaxed);
}

}  // namespace

int* HXValue::getIntPtr() {
  require(Type::Int);
  return &slot_.int32;
}

float* HXValue::getFloatPtr() {
  require(Type::Float);
  return &slot_.float32;
}

void* HXValue::getPtrValue() {
  if (hasPayload(type_)) failType("a scalar");
  return &slot_;
}

void HXValue::storeScalar(const HXValue& value) {
  if (isValid()) {
    value.require(type_);
  } else if (!value.isInt() && !value.isFloat()) {
    value.failType("Int or Float");
  }
  switch (value.type_) {
    case Type::Bool:
      storeRelaxed(slot_.boolean, value.slot_.boolean);
      break;
    case Type::Int:
      storeRelaxed(slot_.int32, value.slot_.int32);
      break;
    case Type::Int64:
      storeRelaxed(slot_.int64, value.slot_.int64);
      break;
    case Type::Float:
      storeRelaxed(slot_.float32, value.slot_.float32);
      break;
    case Type::Double:
      storeRelaxed(slot_.float64, value.slot_.float64);
      break;
    default:
      value.failType("a scalar");
  }
  type_ = value.type_;
}

HXValue HXValue::loadScalar() const {
  switch (type_) {
    case Type::Invalid:
      return {};
    case Type::Bool:
      return loadRelaxed(slot_.boolean);
    case Type::Int:
      return loadRelaxed(slot_.int32);
    case Type::Int64:
      return loadRelaxed(slot_.int64);
    case Type::Float:
      return loadRelaxed(slot_.float32);
    case Type::Double:
      return loadRelaxed(slot_.float64);
    default:
      failType("a scalar");
  }
}

}  // namespace HX
