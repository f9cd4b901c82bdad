#include <hxbase/hxmemory.h>
#include <hxbase/hxmemorysignal.h>
#include <libmw/objecttypebuilder.h>

#include <array>
#include <stdexcept>

namespace HX {
namespace {

// Runs when the library is loaded, so that the first `subscriber` call already has an object type to hand out.
[[maybe_unused]] const bool typeRegistered = [] {
  mw::ObjectTypeBuilder<HXMemorySubscriber> builder("HXMemorySubscriber");
  builder.setThreadingModel(mw::ObjectThreadingModel::MultiThread);
  builder.advertiseSignal("signal", &HXMemorySubscriber::signal);
  builder.buildFor(true);
  return true;
}();

}  // namespace

HXMemorySignal::HXMemorySignal() : HXMemorySignal(nullptr, {}) {}

HXMemorySignal::HXMemorySignal(HXMemory* memory, const std::string& eventName)
    : memory_(memory),
      eventName_(std::make_shared<const std::string>(eventName)),
      memoryLifetime_(memory ? memory->lifetime() : mw::Lifetime::Token()) {}

HXMemorySignal::~HXMemorySignal() = default;

void HXMemorySignal::trigger(mw::GenericFunctionParameters parameters, mw::MetaCallType) {
  if (parameters.size() > 1) throw std::runtime_error("Invalid number of arguments");
  HXValue value;
  if (!parameters.empty()) {
    const mw::AnyReference given = parameters.front().content();
    if (!given.toValue(value)) throw mw::ConversionError(given.type(), mw::typeOf<HXValue>(), {});
  }
  if (!memory_) throw std::runtime_error("this signal stands for no event");
  const auto pass = memoryLifetime_.enter();
  if (!pass) throw std::runtime_error("cannot raise " + eventName() + ": its memory is gone");
  memory_->raiseEvent(eventName(), value);
}

void HXMemorySignal::bounceEvent(const HXValue& value) {
  const std::array parameters{mw::AnyReference::of(value)};
  SignalBase::trigger(parameters, mw::MetaCallType::Auto);
}

}  // namespace HX
