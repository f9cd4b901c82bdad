#include <hxcommon/hxmodule.h>

#include <chrono>
#include <iostream>
#include <thread>

/// A module with calls that last.
class Sleeper : public HX::HXModule {
 public:
  Sleeper(const std::shared_ptr<HX::HXBroker>& broker, const std::string& name) : HXModule(broker, name) {
    functionName("sleep", getName(), "Sleeps until the module leaves.");
    bindMethod(this, &Sleeper::sleep);
    functionName("hang", getName(), "Never returns, whatever happens.");
    bindMethod(this, &Sleeper::hang);
  }

  void exit() override {
    std::cout << getName() << " leaves" << std::endl;
    HXModule::exit();
  }

  void sleep() {
    std::cout << "sleeping" << std::endl;
    sleepFor(std::chrono::hours(1));
  }

  void hang() {
    std::cout << "hanging" << std::endl;
    while (true) std::this_thread::sleep_for(std::chrono::hours(1));
  }
};

HX_MODULE(Sleeper)
