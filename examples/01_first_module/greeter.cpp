// Lesson 1: a module.
//
// A module is a class with methods that anybody may call by name, in a library that a broker loads. This one is built
// by `korvo_module(greeter SOURCES greeter.cpp)`. To meet it:
//
//     $ korvo run --module greeter --console
//     methods Greeter
//     call Greeter greet "Ada"

#include <hxcommon/hxmodule.h>

class Greeter : public HX::HXModule {
 public:
  Greeter(const std::shared_ptr<HX::HXBroker>& broker, const std::string& name) : HXModule(broker, name) {
    setModuleDescription("Greets people.");

    functionName("greet", getName(), "Makes a greeting.");
    addParam("whom", "Whom to greet.");
    setReturn("greeting", "One sentence.");
    bindMethod(this, &Greeter::greet);
  }

  std::string greet(const std::string& whom) { return "Hello, " + whom + "!"; }
};

// The library's entry points: loading it makes one Greeter, under the name of its class.
HX_MODULE(Greeter)
