#include "subscription.h"

#include "linkparts.h"

namespace mw::remote {

bool Subscription::deliver(const Emission& emission) const {
  try {
    return withReferences(emission.arguments, [this](GenericFunctionParameters all) { return subscriber_.call(all); });
  } catch (...) {
    log::error(kCategory, "deliver",
               fmt::format("a subscriber failed: {}", mw::detail::describe(std::current_exception())));
    return true;
  }
}

}  // namespace mw::remote
