#include <hxcommon/hxmodule.h>

#include <iostream>

/// A module that works, and says on standard output when it leaves.
class Greeter : public HX::HXModule {
 public:
  Greeter(const std::shared_ptr<HX::HXBroker>& broker, const std::string& name) : HXModule(broker, name) {
    functionName("greet", getName(), "Greets somebody.");
    addParam("whom", "Name of somebody.");
    setReturn("greeting", "What to say.");
    bindMethod(this, &Greeter::greet);
  }

  void exit() override {
    std::cout << getName() << " leaves" << std::endl;
    HXModule::exit();
  }

  std::string greet(const std::string& whom) { return "Hello, " + whom; }
};

HX_MODULE(Greeter)
