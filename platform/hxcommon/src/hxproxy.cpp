#include <hxcommon/hxproxy.h>
#include <libmw/log.h>
#include <libmw/remoteerror.h>
#include <libmw/text.h>

#include <array>

#include <fmt/format.h>

namespace HX {

HXProxy::HXProxy(mw::AnyObject service, std::string moduleName, Author author, std::weak_ptr<HXBroker> broker)
    : object_(std::move(service)),
      moduleName_(std::move(moduleName)),
      author_(std::move(author)),
      broker_(std::move(broker)) {}

void HXProxy::pCallNotify(const std::string& method, const std::string& key, const HXValue& value,
                          const HXValue& message, CallState* state) const {
  const std::array parameters{mw::AnyReference::of(key), mw::AnyReference::of(value), mw::AnyReference::of(message)};
  try {
    notify(method, parameters, state);
  } catch (const mw::TooLargeError& error) {
    if (!object_->isRemote()) throw;  // Of a call that the subscriber made.
    mw::log::warning("hxcommon.proxy", "pCallNotify",
                     fmt::format("{} is not told the value of {}: {}", moduleName_, mw::shorten(key), error.what()));
  }
}

void HXProxy::notify(const std::string& method, mw::GenericFunctionParameters parameters, CallState* state) const {
  mw::GenericObject& object = object_.get();
  const mw::MetaObject& offered = object.metaObject();
  if (state->first == 0 || state->second != offered.uid()) {
    const mw::MetaMethod& found = offered.resolve(method, parameters);
    *state = {0, 0};
    // Among overloads the choice depends on the value, so it is made anew each time.
    if (offered.findMethods(method).size() > 1) {
      object.callNow(found.id, parameters);
      return;
    }
    *state = {static_cast<std::int32_t>(found.id) + 1, offered.uid()};
  }
  object.callNow(static_cast<unsigned>(state->first - 1), parameters);
}

}  // namespace HX
