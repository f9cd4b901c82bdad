#include <hxcommon/hxproxy.h>
#include <hxcommon/subscriptions.h>
#include <hxcommon/views.h>
#include <hxproxies/hxmemoryproxy.h>

#include <stdexcept>
#include <utility>

namespace HX {

using std::string;

HXMemoryProxy::HXMemoryProxy(std::shared_ptr<HXProxy> proxy) : proxy_(std::move(proxy)) {
  if (!proxy_) throw std::runtime_error("This object is null");
}

void HXMemoryProxy::insertData(const string& key, int value) { proxy_->call("insertData", key, value); }
void HXMemoryProxy::insertData(const string& key, float value) { proxy_->call("insertData", key, value); }
void HXMemoryProxy::insertData(const string& key, const HXValue& value) { proxy_->call("insertData", key, value); }
void HXMemoryProxy::insertText(const string& key, const string& value) { proxy_->call("insertData", key, value); }
void HXMemoryProxy::insertListData(const HXValue& list) { proxy_->call("insertListData", list); }

HXValue HXMemoryProxy::getData(const string& key) { return proxy_->call<HXValue>("getData", key); }
HXValue HXMemoryProxy::getData(const string& key, int deprecatedParameter) {
  return proxy_->call<HXValue>("getData", key, deprecatedParameter);
}
HXValue HXMemoryProxy::getListData(const HXValue& keyList) { return proxy_->call<HXValue>("getListData", keyList); }
HXValue HXMemoryProxy::getDataOnChange(const string& key, int deprecatedParameter) {
  return proxy_->call<HXValue>("getDataOnChange", key, deprecatedParameter);
}
std::shared_ptr<view::Opened> HXMemoryProxy::openView(const string& key, std::size_t capacity, std::size_t depth,
                                                      const ViewOptions& options) const {
  const auto broker = proxy_->findBroker();
  if (!broker) throw std::runtime_error("the broker is gone by which the memory was found");
  return HX::openView(broker, {key, capacity, depth, options.aliveWithin});
}

void HXMemoryProxy::removeData(const string& key) { proxy_->call("removeData", key); }

HXValue HXMemoryProxy::getTimestamp(const string& key) { return proxy_->call<HXValue>("getTimestamp", key); }
HXValue HXMemoryProxy::getEventHistory(const string& key) { return proxy_->call<HXValue>("getEventHistory", key); }
string HXMemoryProxy::getType(const string& key) { return proxy_->call<string>("getType", key); }
HXMemoryProxy::Strings HXMemoryProxy::getDataList(const string& filter) {
  return proxy_->call<Strings>("getDataList", filter);
}
HXMemoryProxy::Strings HXMemoryProxy::getDataListName() { return proxy_->call<Strings>("getDataListName"); }
HXMemoryProxy::Strings HXMemoryProxy::getEventList() { return proxy_->call<Strings>("getEventList"); }
HXMemoryProxy::Strings HXMemoryProxy::getMicroEventList() { return proxy_->call<Strings>("getMicroEventList"); }

void HXMemoryProxy::setDescription(const string& name, const string& description) {
  proxy_->call("setDescription", name, description);
}
HXValue HXMemoryProxy::getDescriptionList(const Strings& keylist) {
  return proxy_->call<HXValue>("getDescriptionList", keylist);
}

void HXMemoryProxy::declareEvent(const string& eventName) { proxy_->call("declareEvent", eventName); }
void HXMemoryProxy::declareEvent(const string& eventName, const string& extractorName) {
  proxy_->call("declareEvent", eventName, extractorName);
}
HXMemoryProxy::Strings HXMemoryProxy::getExtractorEvent(const string& extractorName) {
  return proxy_->call<Strings>("getExtractorEvent", extractorName);
}

void HXMemoryProxy::raiseEvent(const string& name, const HXValue& value) { proxy_->call("raiseEvent", name, value); }
void HXMemoryProxy::raiseMicroEvent(const string& name, const HXValue& value) {
  proxy_->call("raiseMicroEvent", name, value);
}
void HXMemoryProxy::removeEvent(const string& name) { proxy_->call("removeEvent", name); }
void HXMemoryProxy::removeMicroEvent(const string& name) { proxy_->call("removeMicroEvent", name); }

void HXMemoryProxy::subscribeToEvent(const string& name, const string& callbackModule, const string& callbackMethod) {
  proxy_->call("subscribeToEvent", name, callbackModule, callbackMethod);
  Subscriptions::instance().note(*proxy_, callbackModule, name, {callbackMethod, "", false});
}
void HXMemoryProxy::subscribeToEvent(const string& name, const string& callbackModule, const string& callbackMessage,
                                     const string& callbackMethod) {
  proxy_->call("subscribeToEvent", name, callbackModule, callbackMessage, callbackMethod);
  Subscriptions::instance().note(*proxy_, callbackModule, name, {callbackMethod, callbackMessage, false});
}
void HXMemoryProxy::subscribeToMicroEvent(const string& name, const string& callbackModule,
                                          const string& callbackMessage, const string& callbackMethod) {
  proxy_->call("subscribeToMicroEvent", name, callbackModule, callbackMessage, callbackMethod);
  Subscriptions::instance().note(*proxy_, callbackModule, name, {callbackMethod, callbackMessage, true});
}
void HXMemoryProxy::unsubscribeToEvent(const string& name, const string& callbackModule) {
  Subscriptions::instance().forget(callbackModule, name);
  proxy_->call("unsubscribeToEvent", name, callbackModule);
}
void HXMemoryProxy::unsubscribeToMicroEvent(const string& name, const string& callbackModule) {
  Subscriptions::instance().forget(callbackModule, name);
  proxy_->call("unsubscribeToMicroEvent", name, callbackModule);
}
HXMemoryProxy::Strings HXMemoryProxy::getSubscribers(const string& name) {
  return proxy_->call<Strings>("getSubscribers", name);
}
void HXMemoryProxy::unregisterModuleReference(const string& moduleName) {
  proxy_->call("unregisterModuleReference", moduleName);
}
void HXMemoryProxy::_subscribeOnDataSetTimePolicy(const string& name, const string& callbackModule, int nTimePolicy) {
  proxy_->call("_subscribeOnDataSetTimePolicy", name, callbackModule, nTimePolicy);
}
void HXMemoryProxy::_subscribeOnDataSetSynchronizeResponse(const string& name, const string& callbackModule,
                                                           bool synchronizedResponse) {
  proxy_->call("_subscribeOnDataSetSynchronizeResponse", name, callbackModule, synchronizedResponse);
}

mw::AnyObject HXMemoryProxy::subscriber(const string& eventName) {
  return proxy_->call<mw::AnyObject>("subscriber", eventName);
}
void HXMemoryProxy::addMapping(const string& service, const string& signal, const string& event) {
  proxy_->call("addMapping", service, signal, event);
}
void HXMemoryProxy::addMapping(const string& service, const std::map<string, string>& signalEvent) {
  proxy_->call("addMapping", service, signalEvent);
}

void* HXMemoryProxy::getDataPtr(const string& key) { return proxy_->call<void*>("getDataPtr", key); }
int* HXMemoryProxy::getIntPtr(const string& key) { return proxy_->call<int*>("getIntPtr", key); }
float* HXMemoryProxy::getFloatPtr(const string& key) { return proxy_->call<float*>("getFloatPtr", key); }
void HXMemoryProxy::_insertObject(const string& name, const HXValue& buffer, int bufferSize) {
  proxy_->call("_insertObject", name, buffer, bufferSize);
}
void HXMemoryProxy::_perf() { proxy_->call("_perf"); }

}  // namespace HX
