#include "logcategories.h"

#include <hxbase/hxmemory.h>
#include <hxcommon/hxbroker.h>
#include <hxerror/mutex.h>

#include <stdexcept>

namespace HX {
namespace {

/// Behaviour boxes subscribe under names like this one; the frame manager keeps their subscriptions, not the memory.
bool isBox(const std::string& subscriber) { return subscriber.starts_with("_Behavior"); }

}  // namespace

void HXMemory::subscribeToEvent(const std::string& name, const std::string& callbackModule,
                                const std::string& callbackMethod) {
  subscribeToEvent(name, callbackModule, std::string(), callbackMethod);
}

void HXMemory::subscribeToEvent(const std::string& name, const std::string& callbackModule,
                                const std::string& callbackMessage, const std::string& callbackMethod) {
  if (isBox(callbackModule)) {
    xBoxSubscribeToEvent(name, callbackModule, HXValue(callbackMessage), callbackMethod, false);
  } else {
    xSubscribeToEvent(name, callbackModule, HXValue(callbackMessage), callbackMethod);
  }
}

void HXMemory::subscribeToMicroEvent(const std::string& name, const std::string& callbackModule,
                                     const std::string& callbackMessage, const std::string& callbackMethod) {
  if (isBox(callbackModule)) {
    xBoxSubscribeToEvent(name, callbackModule, HXValue(callbackMessage), callbackMethod, true);
  } else {
    xSubscribeToMicroEvent(name, callbackModule, HXValue(callbackMessage), callbackMethod);
  }
}

void HXMemory::unsubscribeToEvent(const std::string& name, const std::string& callbackModule) {
  if (isBox(callbackModule)) {
    xBoxUnsubscribeToEvent(name, callbackModule, false);
  } else {
    xUnsubscribeToEvent(name, callbackModule);
  }
}

void HXMemory::unsubscribeToMicroEvent(const std::string& name, const std::string& callbackModule) {
  if (isBox(callbackModule)) {
    xBoxUnsubscribeToEvent(name, callbackModule, true);
  } else {
    xUnsubscribeToMicroEvent(name, callbackModule);
  }
}

std::vector<std::string> HXMemory::getDataSubscriber(const std::string& name) {
  return requireItem(name, "getDataSubscriber")->getNotifierList();
}

void HXMemory::unregisterModuleReference(const std::string& /*moduleName*/) {
  mw::log::warning("hxmemory", "unregisterModuleReference",
                   "unregisterModuleReference is deprecated and can be removed.");
}

void HXMemory::subscribeOnDataSetTimePolicy(const std::string& /*name*/, const std::string& /*callbackModule*/,
                                            const int& /*nTimePolicy*/) {
  mw::log::error("hxmemory", "subscribeOnDataSetTimePolicy", "HXMemory::subscribeOnDataSetTimePolicy is NO-OP");
}

void HXMemory::subscribeOnDataSetSynchronizeResponse(const std::string& /*name*/, const std::string& /*callbackModule*/,
                                                     const bool& /*synchronizedResponse*/) {
  mw::log::error("hxmemory", "subscribeOnDataSetSynchronizeResponse",
                 "HXMemory::subscribeOnDataSetSynchronizeResponse is NO-OP");
}

void HXMemory::xSubscribeToEvent(const std::string& name, const std::string& module, const HXValue& message,
                                 const std::string& method) {
  subscribe(name, STMValue::Event, module, message, method);
  runExtractor(name, module + name);
}

void HXMemory::xSubscribeToMicroEvent(const std::string& name, const std::string& module, const HXValue& message,
                                      const std::string& method) {
  subscribe(name, STMValue::MicroEvent, module, message, method);
}

/// An item that only the subscription makes is filed with it, so that none is left behind when that fails.
void HXMemory::subscribe(const std::string& name, STMValue::dataType kind, const std::string& module,
                         const HXValue& message, const std::string& method) {
  auto item = xGetSTMValue(name);
  if (!item) {
    const auto made = STMValue::create(this, name, HXValue(), kind);
    made->setNotifier(module, message, method);
    item = fileUnlessPresent(made);
    if (item == made) return;
  }
  item->setNotifier(module, message, method);
}

void HXMemory::xUnsubscribeToMicroEvent(const std::string& name, const std::string& module) {
  requireItem(name, "getData")->unsubscribeNotifier(module, name);
}

void HXMemory::xUnsubscribeToEvent(const std::string& name, const std::string& module) {
  xUnsubscribeToMicroEvent(name, module);
  stopExtractor(name, module + name);
}

std::shared_ptr<HXProxy> HXMemory::frameManager(const char* caller) {
  const auto broker = getParentBroker();
  std::shared_ptr<HXProxy> known;
  {
    const MutexLock lock(frameManagerLock);
    known = frameManagerProxy.lock();
  }
  // Somebody may hold the proxy of a frame manager that has left.
  if (known && broker->isCurrent(*known)) return known;
  auto proxy = broker->getProxy("HXFrameManager", 0);
  if (!proxy) {
    HX_LOG_AS(Error, memoryCategory(), caller, "Cannot get frame manager proxy");
    throw std::runtime_error("Cannot get frame manager proxy");
  }
  const MutexLock lock(frameManagerLock);
  frameManagerProxy = proxy;
  return proxy;
}

void HXMemory::xBoxSubscribeToEvent(const std::string& name, const std::string& callbackModule,
                                    const HXValue& callbackMessage, const std::string& callbackMethod, bool micro) {
  frameManager("xBoxSubscribeToEvent")
      ->call("_subscribeBoxToEvent", name, callbackModule, callbackMessage, callbackMethod, micro);
}

void HXMemory::xBoxUnsubscribeToEvent(const std::string& name, const std::string& callbackModule, bool micro) {
  frameManager("xBoxUnsubscribeToEvent")->call("_unsubscribeBoxToEvent", name, callbackModule, micro);
}

}  // namespace HX
