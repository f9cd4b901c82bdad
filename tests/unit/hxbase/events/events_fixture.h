#pragma once

#include "capture_log.h"
#include "expect_error.h"
#include "listener.h"
#include "memory_fixture.h"
#include "print_value.h"

#include <libmw/eventloop.h>

#include <memory>
#include <string>
#include <vector>

namespace HX {

using testing::ElementsAre;
using testing::IsEmpty;
using Entry = kit::CaptureLog::Entry;

/// A memory with listeners in its broker.
class EventsFixture : public kit::MemoryFixture {
 protected:
  std::shared_ptr<kit::Listener> offer(const std::string& name) {
    auto listener = kit::Listener::make();
    broker->session()->registerService(name, mw::AnyObject(listener));
    return listener;
  }

  std::shared_ptr<kit::Listener> subscribed(const std::string& name, const std::string& event = "E") {
    auto listener = offer(name);
    memory->subscribeToEvent(event, name, "heard");
    return listener;
  }

  std::vector<std::string> subscribers(const std::string& event = "E") { return memory->getDataSubscriber(event); }

  /// Withdraws a service, of which the notice is still to come.
  void leave(const std::string& name) {
    for (const auto& service : broker->session()->services()) {
      if (service.name == name) broker->session()->unregisterService(service.id);
    }
  }

  void withdraw(const std::string& name) {
    leave(name);
    mw::defaultLoop().drain();
  }
};

}  // namespace HX
