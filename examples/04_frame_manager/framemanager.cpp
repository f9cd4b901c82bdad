// Lesson 4: subscribers that are no modules.
//
// A behaviour engine runs boxes: many, short-lived, and no modules that the memory could call. They subscribe under
// names that begin with "_Behavior", and the memory hands such subscriptions to the module HXFrameManager, which keeps
// them. This one is subscribed to the event itself and tells its boxes of each raise; where an engine would run a box,
// it logs.
//
//     $ korvo run --module framemanager --console
//     call HXMemory subscribeToEvent "Door/Opened" "_BehaviorGreet" "onOpened"
//     raise Door/Opened "kitchen"

#include <hxcommon/hxbroker.h>
#include <hxcommon/hxmodule.h>
#include <hxproxies/hxmemoryproxy.h>
#include <libmw/log.h>

#include <map>
#include <mutex>

class HXFrameManager : public HX::HXModule {
 public:
  HXFrameManager(const std::shared_ptr<HX::HXBroker>& broker, const std::string& name) : HXModule(broker, name) {
    setModuleDescription("Keeps and serves the subscriptions of behaviour boxes.");

    functionName("_subscribeBoxToEvent", getName(), "Called by the memory when a box subscribes.");
    addParam("event", "Name of the event.");
    addParam("box", "Name of the box.");
    addParam("message", "Comes back with each raise.");
    addParam("method", "What of the box is to run.");
    addParam("micro", "Whether it is a micro-event.");
    bindMethod(this, &HXFrameManager::subscribeBox);

    functionName("_unsubscribeBoxToEvent", getName(), "Called by the memory when a box unsubscribes.");
    addParam("event", "Name of the event.");
    addParam("box", "Name of the box.");
    addParam("micro", "Whether it is a micro-event.");
    bindMethod(this, &HXFrameManager::unsubscribeBox);

    functionName("_onEvent", getName(), "Called by the memory when an event is raised.");
    addParam("event", "Name of the event.");
    addParam("value", "What it was raised with.");
    addParam("message", "Empty.");
    bindMethod(this, &HXFrameManager::onEvent);
  }

  // The memory is called without the lock: it waits for the raises of the event that are running, and those come here.
  void subscribeBox(const std::string& event, const std::string& box, const HX::HXValue& message,
                    const std::string& method, bool micro) {
    {
      const std::lock_guard lock(mutex_);
      boxes_[event].insert_or_assign(box, Box{message, method});
    }
    auto memory = getParentBroker()->getSpecialisedProxy<HX::HXMemoryProxy>("HXMemory");
    if (micro) {
      memory->subscribeToMicroEvent(event, getName(), "", "_onEvent");
    } else {
      memory->subscribeToEvent(event, getName(), "_onEvent");
    }
  }

  // The module's own subscription stays when the last box goes. Giving it up outside the lock could hit a box that
  // arrives at that moment, and without boxes it costs one call for each raise.
  void unsubscribeBox(const std::string& event, const std::string& box, bool /*micro*/) {
    const std::lock_guard lock(mutex_);
    const auto found = boxes_.find(event);
    if (found == boxes_.end() || found->second.erase(box) == 0) {
      throw HX::HXError(getName(), "_unsubscribeBoxToEvent", box + " is not subscribed to " + event);
    }
  }

  void onEvent(const std::string& event, const HX::HXValue& value, const std::string& /*message*/) {
    for (const auto& [name, box] : boxesOf(event)) {
      mw::log::info(getName(), name,
                    box.method + ": " + event + " = " + value.toString() + ", " + box.message.toString());
    }
  }

 private:
  struct Box {
    HX::HXValue message;
    std::string method;
  };
  using Boxes = std::map<std::string, Box>;

  /// A copy, so that boxes may subscribe and unsubscribe while they run.
  Boxes boxesOf(const std::string& event) {
    const std::lock_guard lock(mutex_);
    const auto found = boxes_.find(event);
    return found == boxes_.end() ? Boxes() : found->second;
  }

  std::mutex mutex_;                    // Guards `boxes_`.
  std::map<std::string, Boxes> boxes_;  // By event.
};

HX_MODULE(HXFrameManager)
