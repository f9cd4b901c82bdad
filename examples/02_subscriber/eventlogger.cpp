// Lesson 2: a subscriber.
//
// Modules tell each other of things through the memory: one raises an event, and the memory calls a method of every
// module that subscribed to it. EventLogger subscribes to what it is asked to, and logs what it is told.
//
//     $ korvo run --module eventlogger --console
//     call EventLogger listen "Door/Opened"
//     raise Door/Opened "kitchen"
//
// The call comes on the thread that raises, before `raise` returns, and the memory holds a lock of that event
// meanwhile: a callback is short, and hands longer work to a thread of its own. It must be ready for several threads at
// once where it listens to several events.

#include <hxcommon/hxbroker.h>
#include <hxcommon/hxmodule.h>
#include <hxproxies/hxmemoryproxy.h>
#include <libmw/log.h>

class EventLogger : public HX::HXModule {
 public:
  EventLogger(const std::shared_ptr<HX::HXBroker>& broker, const std::string& name) : HXModule(broker, name) {
    setModuleDescription("Logs events.");

    functionName("listen", getName(), "Logs every raise of an event from now on.");
    addParam("event", "Name of the event; it need not exist yet.");
    bindMethod(this, &EventLogger::listen);

    functionName("listenToMicroEvent", getName(), "Logs every raise of a micro-event from now on.");
    addParam("event", "Name of the micro-event.");
    addParam("message", "Comes back with each raise; for telling subscriptions apart.");
    bindMethod(this, &EventLogger::listenToMicroEvent);

    functionName("ignore", getName(), "Ends what listen began.");
    addParam("event", "Name of the event.");
    bindMethod(this, &EventLogger::ignore);

    functionName("onEvent", getName(), "What the memory calls.");
    addParam("key", "Name of the event.");
    addParam("value", "What it was raised with.");
    addParam("message", "What the subscription gave.");
    bindMethod(this, &EventLogger::onEvent);
  }

  void listen(const std::string& event) { memory().subscribeToEvent(event, getName(), "onEvent"); }

  void listenToMicroEvent(const std::string& event, const std::string& message) {
    memory().subscribeToMicroEvent(event, getName(), message, "onEvent");
  }

  void ignore(const std::string& event) { memory().unsubscribeToEvent(event, getName()); }

  void onEvent(const std::string& key, const HX::HXValue& value, const std::string& message) {
    const std::string note = message.empty() ? "" : " (" + message + ")";
    mw::log::info("EventLogger", "onEvent", key + " = " + value.toString() + note);
  }

 private:
  HX::HXMemoryProxy memory() { return *getParentBroker()->getSpecialisedProxy<HX::HXMemoryProxy>("HXMemory"); }
};

HX_MODULE(EventLogger)
