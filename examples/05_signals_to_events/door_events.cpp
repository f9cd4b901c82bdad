// Does by program what lesson 5 does by hand: `door_events <folder of the map file>`.
//
// The memory connects to a service's signals when it is told that the service is there, on a thread of the middleware.
// A program faster than a person's hand has to wait for that; everybody else need not care.

#include <hxcommon/hxbroker.h>
#include <hxproxies/hxmemoryproxy.h>
#include <libmw/path.h>

#include <iostream>

namespace {

/// Loads `library`, and waits until those who watch for its service have been told of it.
void loadAndAnnounce(HX::HXBroker& broker, const std::string& library, const std::string& service) {
  mw::Promise<void> told;
  // Connected later than the memory, so called later.
  auto& registered = broker.session()->serviceRegistered;
  const mw::SignalLink link = registered.connect(mw::SignalSubscriber([&](mw::ServiceId, const std::string& name) {
    if (name == service) told.setValue();
  }));
  broker.loadModule(library);
  told.future().value();
  registered.disconnect(link);
}

}  // namespace

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) mw::path::prependDataDir(argv[i]);
  const auto broker = HX::HXBroker::create("door-events");
  broker->loadModule("hxmemory");
  broker->loadModule("eventlogger");
  loadAndAnnounce(*broker, "door", "Door");

  const auto logger = broker->getProxy("EventLogger");
  logger->call("listen", "Door/Opened");
  logger->call("listen", "Door/Closed");

  const auto door = broker->getProxy("Door");
  door->call("open", "kitchen");
  door->call("open", "hall");  // It is open: nothing happens.
  door->call("close");

  const auto memory = broker->getSpecialisedProxy<HX::HXMemoryProxy>("HXMemory");
  std::cout << memory->getType("Door/Opened") << ' ' << memory->getData("Door/Opened").toString() << '\n';
  broker->shutdown();
}
