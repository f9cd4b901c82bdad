#include <hxcommon/hxbroker.h>
#include <hxcommon/hxmodule.h>
#include <hxproxies/hxmemoryproxy.h>

#include <iostream>

/// A module that works, and says on standard output when it leaves.
class Greeter : public HX::HXModule {
 public:
  Greeter(const std::shared_ptr<HX::HXBroker>& broker, const std::string& name) : HXModule(broker, name) {
    functionName("greet", getName(), "Greets somebody.");
    addParam("whom", "Name of somebody.");
    setReturn("greeting", "What to say.");
    bindMethod(this, &Greeter::greet);
    functionName("listen", getName(), "Says on standard output what an event is raised with.");
    addParam("event", "Its name.");
    bindMethod(this, &Greeter::listen);
    functionName("onEvent", getName(), "What the memory calls.");
    bindMethod(this, &Greeter::onEvent);
  }

  void exit() override {
    std::cout << getName() << " leaves" << std::endl;
    HXModule::exit();
  }

  void listen(const std::string& event) {
    getParentBroker()
        ->getSpecialisedProxy<HX::HXMemoryProxy>("HXMemory")
        ->subscribeToEvent(event, getName(), "onEvent");
  }

  void onEvent(const std::string& event, const HX::HXValue& value, const std::string& /*message*/) {
    std::cout << event << " = " << value.toString() << std::endl;
  }

  std::string greet(const std::string& whom) { return "Hello, " + whom; }
};

HX_MODULE(Greeter)
