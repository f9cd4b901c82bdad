// Lesson 7: an event as a signal.
//
// A program that is no module has no method that the memory could call. It asks for the event's wrapper instead, an
// object with one signal: connected, it gives every value that the event is raised with; triggered, it raises the
// event.
//
// Connecting is no subscription: extractors are not told of it, and `getSubscribers` does not list it.

#include <hxcommon/hxbroker.h>
#include <hxproxies/hxmemoryproxy.h>

#include <iostream>

int main() {
  const auto broker = HX::HXBroker::create("wrapper-signal");
  broker->loadModule("hxmemory");
  const auto memory = broker->getSpecialisedProxy<HX::HXMemoryProxy>("HXMemory");

  // Declares the event, for there is none of that name. Asked again, it is the same object.
  const mw::AnyObject opened = memory->subscriber("Door/Opened");

  const mw::SignalSubscriber print(
      [](const HX::HXValue& value) { std::cout << "opened: " << value.toString() << '\n'; });
  const mw::SignalLink link = opened->connect("signal", print).value();  // Later raises will arrive.

  memory->raiseEvent("Door/Opened", "kitchen");
  opened->post("signal", HX::HXValue("cellar"));
  std::cout << "in the memory: " << memory->getData("Door/Opened").toString() << '\n';

  opened->disconnect(link).value();
  memory->raiseEvent("Door/Opened", "attic");
  std::cout << "in the memory: " << memory->getData("Door/Opened").toString() << '\n';
  broker->shutdown();
}
