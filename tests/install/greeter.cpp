#include <hxcommon/hxbroker.h>
#include <hxcommon/hxmodule.h>
#include <hxproxies/hxmemoryproxy.h>

class Greeter : public HX::HXModule {
 public:
  Greeter(const std::shared_ptr<HX::HXBroker>& broker, const std::string& name) : HXModule(broker, name) {
    setModuleDescription("Greets people.");

    functionName("greet", getName(), "Makes a greeting.");
    addParam("whom", "Whom to greet.");
    setReturn("greeting", "One sentence.");
    bindMethod(this, &Greeter::greet);

    functionName("onArrived", getName(), "Greets whoever arrived.");
    addParam("event", "Name of the event.");
    addParam("visitor", "Name of who arrived.");
    addParam("message", "Nothing.");
    bindMethod(this, &Greeter::onArrived);
  }

  void init() override { memory().subscribeToEvent("Visitor/Arrived", getName(), "onArrived"); }

  std::string greet(const std::string& whom) { return "Hello, " + whom + "!"; }

  void onArrived(const std::string& /*event*/, const std::string& visitor, const std::string& /*message*/) {
    memory().insertData("Greeter/LastGreeting", greet(visitor));
  }

 private:
  HX::HXMemoryProxy memory() { return *getParentBroker()->getSpecialisedProxy<HX::HXMemoryProxy>("HXMemory"); }
};

HX_MODULE(Greeter)
