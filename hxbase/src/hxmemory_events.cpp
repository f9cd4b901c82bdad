#include "logcategories.h"

#include <hxbase/hxmemory.h>
#include <hxcommon/hxbroker.h>
#include <hxerror/mutex.h>

#include <optional>
#include <stdexcept>

namespace HX {
namespace {

bool isNobody(const std::string& extractor) { return extractor.empty() || extractor == "Unknown"; }

/// Extractors that cannot say how precisely they work are not told of their subscribers.
bool wantsSubscribers(const mw::AnyObject& extractor) {
  return extractor && !extractor->metaObject().findMethods("getCurrentPrecision").empty();
}

}  // namespace

void HXMemory::declareEvent(const std::string& eventName) { write(eventName, HXValue(), STMValue::Event, nullptr); }

void HXMemory::declareEvent(const std::string& eventName, const std::string& extractorName) {
  write(eventName, HXValue(), STMValue::Event, nullptr, &extractorName);
}

void HXMemory::raiseEvent(const std::string& name, const HXValue& value) { xRaiseEvent(name, value); }

void HXMemory::raiseMicroEvent(const std::string& name, const HXValue& value) { xRaiseMicroEvent(name, value); }

void HXMemory::xRaiseEvent(const std::string& name, const HXValue& value) {
  const auto item = xInsertData(name, value, STMValue::Event);
  item->pushHistory(value);
  item->notify(name, value);
}

void HXMemory::xRaiseMicroEvent(const std::string& name, const HXValue& value) {
  xInsertData(name, value, STMValue::MicroEvent)->notify(name, value);
}

void HXMemory::removeEvent(const std::string& name) {
  xRemoveData(name);
  const Lock lock(eventExtractorsLock);
  eventExtractors.erase(name);
}

void HXMemory::removeMicroEvent(const std::string& name) { removeEvent(name); }

std::vector<std::string> HXMemory::getExtractorEvent(const std::string& extractorName) {
  const SharedLock lock(eventExtractorsLock);
  std::vector<std::string> events;
  for (const auto& [event, extractor] : eventExtractors) {
    if (extractor.filed && extractor.module == extractorName) events.push_back(event);
  }
  return events;
}

std::string HXMemory::extractorOf(const std::string& event) {
  {
    const SharedLock lock(eventExtractorsLock);
    const auto found = eventExtractors.find(event);
    if (found != eventExtractors.end()) return found->second.module;
  }
  // Remembered from now on, so that unsubscribing later finds an entry and logs nothing.
  const Lock lock(eventExtractorsLock);
  return eventExtractors[event].module;
}

void HXMemory::runExtractor(const std::string& event, const std::string& subscriberId) {
  const std::string extractor = extractorOf(event);
  if (isNobody(extractor)) return;
  const auto proxy = getParentBroker()->getProxy(extractor, 0);
  const mw::AnyObject object = proxy ? proxy->asObject() : mw::AnyObject();
  if (object && !wantsSubscribers(object)) return;
  try {
    object->call("subscribe", subscriberId);
  } catch (const std::exception& error) {
    noteDemand(extractor, event, subscriberId, error.what());
    throw;
  }
  noteDemand(extractor, event, subscriberId, {});
}

void HXMemory::stopExtractor(const std::string& event, const std::string& subscriberId) {
  forgetDemand(event, subscriberId);
  std::optional<std::string> extractor;
  {
    const SharedLock lock(eventExtractorsLock);
    const auto found = eventExtractors.find(event);
    if (found != eventExtractors.end()) extractor = found->second.module;
  }
  if (!extractor) HX_LOG_AS(Info, memoryCategory(), "stopExtractor", "stopExtractor no extractor for " + event);
  if (!extractor || isNobody(*extractor)) return;
  try {
    // An extractor that cannot be reached needs no telling.
    const auto proxy = getParentBroker()->getProxy(*extractor, 0);
    if (!proxy || !wantsSubscribers(proxy->asObject())) return;
  } catch (const std::exception&) {
    return;
  }
  const auto proxy = getParentBroker()->getProxy(*extractor, 0);
  if (!proxy) throw std::runtime_error("This object is null");
  proxy->call("unsubscribe", subscriberId);
}

}  // namespace HX
