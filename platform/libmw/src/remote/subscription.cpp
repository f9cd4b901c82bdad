#include "subscription.h"

namespace mw::remote {

bool Subscription::deliver(const Emission& emission, SignalLink link) const {
  try {
    return withReferences(emission.arguments, [this](GenericFunctionParameters all) { return subscriber_.call(all); });
  } catch (...) {
    subscriber_.logFailure(link);
    return true;
  }
}

}  // namespace mw::remote
