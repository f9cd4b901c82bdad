#include "demand.h"

#include "base/target.h"

#include <hxcommon/hxbroker.h>
#include <hxcommon/hxmodule.h>
#include <libmw/eventloop.h>

#include <atomic>
#include <exception>
#include <unistd.h>
#include <utility>

#include <fmt/format.h>

namespace korvo {

/// Who is subscribed, in the eyes of the memory and of the extractors.
class Asker : public HX::HXModule {
 public:
  Asker(const std::shared_ptr<HX::HXBroker>& broker, const std::string& name) : HXModule(broker, name) {
    setModuleDescription("Is subscribed to events that korvo watches, so that their extractors produce them.");
    functionName("told", getName(), "Called at each raise; does nothing.");
    addParam("key", "The event.");
    addParam("value", "What it was raised with.");
    addParam("message", "Empty.");
    bindMethod(this, &Asker::told);
  }
  void told(const std::string& /*key*/, const HX::HXValue& /*value*/, const HX::HXValue& /*message*/) {}

  /// A name that no other module has: processes watch side by side, and one several times.
  static std::string freshName() {
    static std::atomic<unsigned> count = 0;
    return fmt::format("korvo-watch-{}-{}", getpid(), ++count);
  }
};

Demand::Demand(Target& target, HX::journal::Filter filter) : target_(target), filter_(std::move(filter)) { look(); }

Demand::~Demand() {
  lifetime_.destroy();
  if (!asker_) return;
  try {
    auto memory = target_.memory();
    for (const std::string& event : events_) memory.unsubscribeToEvent(event, asker_->getName());
  } catch (const std::exception&) {  // With the connection the subscription goes too.
  }
  asker_->exit();
}

void Demand::look() {
  {
    const std::lock_guard lock(mutex_);
    if (std::exchange(isLooking_, true)) {
      looksAgain_ = true;
      return;
    }
  }
  mw::defaultLoop().post(lifetime_.track([this] { ask(); }));
}

void Demand::ask() {
  bool goesOn = true;
  while (goesOn) {
    try {
      auto memory = target_.memory();
      for (const auto& service : target_.services()) {
        for (const auto& event : memory.getExtractorEvent(service)) {
          if (filter_.wantsKey(event) && !events_.contains(event)) subscribe(event);
        }
      }
    } catch (const std::exception&) {  // There is no memory at the moment; when it comes, it declares its events.
    }
    const std::lock_guard lock(mutex_);
    goesOn = isLooking_ = std::exchange(looksAgain_, false);
  }
}

void Demand::subscribe(const std::string& event) {
  if (!asker_) asker_ = HX::HXModule::createModule<Asker>(target_.ownBroker(), Asker::freshName());
  target_.memory().subscribeToEvent(event, asker_->getName(), "told");
  events_.insert(event);
}

}  // namespace korvo
