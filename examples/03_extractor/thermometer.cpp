// Lesson 3: an extractor.
//
// An extractor produces an event, and only while somebody wants it. It declares the event under its own name; from then
// on the memory calls its `subscribe` and `unsubscribe` as subscribers come and go, each time with an identifier: the
// subscriber's name with the event's name behind it.
//
// The memory keeps no count, and does not tell of subscribers that were killed. HX::Subscribers sees to both, and
// declares the event again when the memory was restarted.
//
//     $ korvo run --module thermometer --module eventlogger --console
//     call EventLogger listen "Thermometer/Temperature"
//     call Thermometer measure 21.5

#include <hxcommon/hxbroker.h>
#include <hxcommon/hxmodule.h>
#include <hxcommon/subscribers.h>
#include <hxproxies/hxmemoryproxy.h>

#include <string>
#include <vector>

class Thermometer : public HX::HXModule {
 public:
  Thermometer(const std::shared_ptr<HX::HXBroker>& broker, const std::string& name)
      : HXModule(broker, name), subscribers_(broker->session(), name) {
    setModuleDescription("Produces the event Thermometer/Temperature while somebody is subscribed to it.");

    functionName("subscribe", getName(), "Called by the memory when a module subscribes to the event.");
    addParam("subscriberId", "Who, and to which event.");
    bindMethod(this, &Thermometer::subscribe);

    functionName("unsubscribe", getName(), "Called by the memory when a module unsubscribes from the event.");
    addParam("subscriberId", "As it was given to subscribe.");
    bindMethod(this, &Thermometer::unsubscribe);

    // The memory tells an extractor of its subscribers only when it has this method.
    functionName("getCurrentPrecision", getName(), "How exact the event is.");
    setReturn("precision", "From 0 to 1.");
    bindMethod(this, &Thermometer::getCurrentPrecision);

    functionName("measure", getName(), "Stands for the sensor: takes a measurement.");
    addParam("celsius", "What the sensor shows.");
    bindMethod(this, &Thermometer::measure);

    functionName("subscribers", getName(), "Who wants the event.");
    setReturn("modules", "Their names.");
    bindMethod(this, &Thermometer::subscribers);
  }

  // Only now can others call this module, so this is where it tells them of itself.
  void init() override { subscribers_.declare(kEvent); }

  void subscribe(const std::string& subscriberId) { subscribers_.add(subscriberId); }
  void unsubscribe(const std::string& subscriberId) { subscribers_.remove(subscriberId); }

  float getCurrentPrecision() { return 1.0F; }

  void measure(double celsius) {
    if (subscribers_.want(kEvent)) memory().raiseEvent(kEvent, celsius);
  }

  std::vector<std::string> subscribers() { return subscribers_.of(kEvent); }

 private:
  static constexpr const char* kEvent = "Thermometer/Temperature";

  HX::HXMemoryProxy memory() { return *getParentBroker()->getSpecialisedProxy<HX::HXMemoryProxy>("HXMemory"); }

  HX::Subscribers subscribers_;
};

HX_MODULE(Thermometer)
