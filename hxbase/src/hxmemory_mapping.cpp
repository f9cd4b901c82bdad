#include "logcategories.h"
#include "signalmapline.h"

#include <hxbase/detail/notifierlock.h>
#include <hxbase/hxmemory.h>
#include <hxcommon/hxbroker.h>
#include <hxerror/mutex.h>
#include <libmw/detail/logdeferral.h>
#include <libmw/os.h>
#include <libmw/path.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <stdexcept>

namespace HX {

/// Holds `mappingMutex` and says who does. Applying a mapping declares events, and a subscriber of the bookkeeping may
/// ask for another mapping on the same thread: that one would wait for itself, and is refused instead.
class HX_SCOPED_CAPABILITY HXMemory::MappingLock {
 public:
  explicit MappingLock(HXMemory& memory) HX_ACQUIRE(memory.mappingMutex) : memory_(memory) {
    if (memory.mappingOwner_ == std::this_thread::get_id()) {
      throw std::runtime_error("a mapping cannot be added while one is being applied on the same thread");
    }
    memory_.mappingMutex.lock();
    memory_.mappingOwner_ = std::this_thread::get_id();
  }
  MappingLock(const MappingLock&) = delete;
  MappingLock& operator=(const MappingLock&) = delete;
  ~MappingLock() HX_RELEASE() {
    memory_.mappingOwner_ = std::thread::id();
    memory_.mappingMutex.unlock();
  }

 private:
  const mw::detail::LogDeferral deferral_;  // Ends when the lock has been left.
  HXMemory& memory_;
};

std::shared_ptr<HXMemorySubscriber> HXMemory::subscriber(const std::string& eventName) {
  auto item = xGetSTMValue(eventName);
  if (!item) {
    declareEvent(eventName);
    item = xGetSTMValue(eventName);  // Somebody may have removed it again meanwhile.
    if (!item) throw std::runtime_error("event not found");
  }
  return item->subscriber();  // Never without an item, which would be an "invalid registered event".
}

bool HXMemory::_parseEventFromLine(std::string line, std::string& service, std::string& signal,
                                   std::string& event) const {
  const SignalMapLine parsed = parseSignalMapLine(std::move(line));
  // What was not reached stays as the caller had it.
  if (parsed.parts > 0) service = parsed.service;
  if (parsed.parts > 1) signal = parsed.signal;
  if (parsed.parts > 2) event = parsed.event;
  return parsed.verdict == SignalMapLine::Verdict::Accepted;
}

void HXMemory::loadSignalEventMapFromFile() {
  const char* const fileName = "hxmemory_map_signal_event.txt";
  const std::string path = mw::path::findData("korvo", fileName, false);
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(path.empty() ? nullptr : mw::os::fopen(path, "r"),
                                                             &std::fclose);
  if (!file) {
    HX_LOG_AS(Warning, memoryCategory(), "loadSignalEventMapFromFile", std::string("Can't not open file ") + fileName);
    return;
  }
  while (const auto piece = readSignalMapPiece(file.get())) {
    std::string service;
    std::string signal;
    std::string event;
    if (_parseEventFromLine(piece->text, service, signal, event)) addMapping(service, signal, event);
  }
}

void HXMemory::applyPendingMappings() {
  const MappingLock lock(*this);
  for (const auto& [service, signalEvent] : pendingMappings) declareEventsFromService(service, signalEvent);
}

void HXMemory::addMapping(const std::string& service, const std::string& signal, const std::string& event) {
  {
    const MappingLock lock(*this);
    const MutexLock insight(insightLock);
    pendingMappings[service][signal] = event;
  }
  bool found = false;
  const mw::AnyObject object = findService(service, found);
  if (!found) return;
  if (object->isRemote()) noteMapped(object, service, signal);
  mapSignal(object, service, signal, event, "addMapping");
}

void HXMemory::addMapping(const std::string& service, const std::map<std::string, std::string>& signalEvent) {
  for (const auto& [signal, event] : signalEvent) addMapping(service, signal, event);
}

void HXMemory::declareEventsFromService(const std::string& service,
                                        const std::map<std::string, std::string>& signalEvent) {
  bool found = false;
  const mw::AnyObject object = findService(service, found);
  if (!found) return;
  for (const auto& [signal, event] : signalEvent) {
    if (object->isRemote()) noteMapped(object, service, signal);
    mapSignal(object, service, signal, event, "declareEventsFromService");
  }
}

/// @return Whether it was not noted of this object before.
bool HXMemory::noteMapped(const mw::AnyObject& object, const std::string& service, const std::string& signal) {
  const MutexLock lock(mappedLock);
  MappedService& mapped = mappedServices[service];
  const auto& given = object.pointer();
  const bool isSame = !mapped.object.owner_before(given) && !given.owner_before(mapped.object);
  if (!isSame) mapped = {given, {}};
  return mapped.signals.insert(signal).second;
}

mw::AnyObject HXMemory::findService(const std::string& service, bool& found) const {
  try {
    mw::AnyObject object = getParentBroker()->session()->service(service, "").value(mw::kInfiniteTimeout);
    found = true;
    return object;
  } catch (const mw::FutureError&) {
    found = false;  // Not there yet: the mapping waits for the service to register.
    return {};
  }
}

void HXMemory::mapSignal(const mw::AnyObject& object, const std::string& service, const std::string& signal,
                         const std::string& event, const char* caller) {
  const int id = object->metaObject().signalId(signal);
  if (id < 0) {
    HX_LOG_AS(Warning, memoryCategory(), caller, "Signal " + service + "." + signal + " does not exist");
    return;
  }
  declareEvent(event);
  const auto failed = [this, caller, event, what = service + "." + signal + " to " + event](const std::string& why) {
    HX_LOG_AS(Error, memoryCategory(), caller, "HXMemory mapping failed for " + what + ": " + why);
    removeEvent(event);
  };
  try {
    auto received = mw::AnyFunction::fromDynamicFunction(
        [this, event](const std::vector<mw::AnyReference>& args) { return onSignalReceived(event, args); });
    // The service keeps the connection for as long as it lives, which may be longer than the memory does.
    auto subscriber = mw::SignalSubscriber(std::move(received)).track(lifetime_.token());
    const auto connected = object->connect(static_cast<unsigned>(id), subscriber);
    const bool holdsMappings = mappingOwner_ == std::this_thread::get_id();
    const auto patience = holdsMappings ? NotifierLock::patience() : mw::kInfiniteTimeout;
    if (connected.wait(patience) != mw::FutureState::Running) {
      connected.value();
      return;
    }
    // Every other mapping and all notices of services would wait for as long as this service does not answer. It is
    // connected when it does.
    HX_LOG_AS(Warning, memoryCategory(), caller,
              "the mapping of " + service + "." + signal + " to " + event + " waits for the service to answer");
    connected.then(lifetime_.track([failed](const mw::Future<mw::SignalLink>& done) {
      if (done.hasError()) failed(done.error());
    }));
  } catch (const std::exception& error) {
    failed(error.what());
  }
}

void HXMemory::onServiceRegistered(const std::string& service) {
  const MappingLock lock(*this);
  const auto pending = pendingMappings.find(service);
  if (pending == pendingMappings.end()) return;
  bool found = false;
  const mw::AnyObject object = findService(service, found);
  if (!found) return;
  for (const auto& [signal, event] : pending->second) {
    if (!object || noteMapped(object, service, signal)) {
      mapSignal(object, service, signal, event, "declareEventsFromService");
    }
  }
}

mw::AnyReference HXMemory::onSignalReceived(const std::string& event, const std::vector<mw::AnyReference>& args) {
  if (args.size() > 1) {
    HX_LOG_AS(Error, memoryCategory(), "onSignalReceived",
              "Event " + event + " was triggered by a signal with more than one argument");
    return {};
  }
  HXValue value;
  if (!args.empty()) {
    const mw::AnyReference given = args.front().content();
    if (!given.toValue(value)) throw mw::ConversionError(given.type(), mw::typeOf<HXValue>(), {});
  }
  xRaiseMicroEvent(event, value);
  return {};
}

}  // namespace HX
