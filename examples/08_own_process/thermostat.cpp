// Lesson 8: a module in a process of its own.
//
// The same module as ever, and a main() that joins the broker which runs already. It is called by name, subscribes, is
// called back, and calls back: as if it lived with the memory. If it crashes, nobody else does.
//
//     $ korvo run                      in one terminal
//     $ bin/thermostat                 in another: `korvo host --module …` does the same for a module library
//     $ korvo raise Room/Temperature 17.5 && korvo get Heating/On
//
// A broker that is restarted knows nothing of who subscribed to what. The connection comes back by itself, with the
// services of this process; what was stated in the memory is stated again when it is back.

#include <hxcommon/hxbroker.h>
#include <hxcommon/hxmodule.h>
#include <hxproxies/hxmemoryproxy.h>
#include <libmw/local.h>

#include <atomic>
#include <csignal>
#include <exception>
#include <iostream>
#include <string>

class Thermostat : public HX::HXModule {
 public:
  Thermostat(const std::shared_ptr<HX::HXBroker>& broker, const std::string& name) : HXModule(broker, name) {
    setModuleDescription("Heats the room until it is warm.");

    functionName("setTarget", getName(), "Says how warm it should be.");
    addParam("degrees", "Celsius.");
    bindMethod(this, &Thermostat::setTarget);

    functionName("onTemperature", getName(), "What the memory calls.");
    addParam("key", "Name of the event.");
    addParam("value", "How warm it is, Celsius.");
    addParam("message", "Not used.");
    bindMethod(this, &Thermostat::onTemperature);

    broker->session()->connectionRestored.connect(mw::SignalSubscriber([this] { listen(); }).track(lifetime_.token()));
  }
  ~Thermostat() override { lifetime_.destroy(); }

  void init() override { listen(); }

  void setTarget(double degrees) { target_ = degrees; }

  void onTemperature(const std::string& /*key*/, const HX::HXValue& value, const std::string& /*message*/) {
    memory().insertData("Heating/On", value.toDouble() < target_);
  }

 private:
  void listen() { memory().subscribeToEvent("Room/Temperature", getName(), "onTemperature"); }
  HX::HXMemoryProxy memory() { return *getParentBroker()->getSpecialisedProxy<HX::HXMemoryProxy>("HXMemory"); }

  std::atomic<double> target_{20};
  mw::Lifetime lifetime_;
};

int main(int argc, char** argv) {
  // Blocked before there is a second thread, so that they wake up this one and no other.
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGINT);
  sigaddset(&stop, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop, nullptr);
  try {
    const auto broker = HX::HXBroker::create("thermostat");
    const mw::LocalClient joined(*broker->session(), argc > 1 ? argv[1] : "");
    HX::HXModule::createModule<Thermostat>(broker, "Thermostat");
    std::cout << "joined " << joined.broker() << std::endl;
    int signal = 0;
    sigwait(&stop, &signal);
    broker->shutdown();
  } catch (const std::exception& error) {
    std::cerr << "thermostat: " << error.what() << '\n';
    return 1;
  }
}
