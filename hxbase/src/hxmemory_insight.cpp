#include "droppedsubscriptions.h"

#include <hxbase/hxmemory.h>
#include <hxcommon/hxbroker.h>
#include <hxerror/mutex.h>
#include <libmw/whereabouts.h>

#include <algorithm>
#include <new>
#include <utility>

namespace HX {
namespace {

constexpr std::size_t kDemandsKept = 4096;
/// So much of the table is locked at once.
constexpr std::size_t kHomes = 64;

}  // namespace

std::vector<MemoryInsight::Subscriber> HXMemory::placed(std::vector<Subscriber> records) const {
  const auto broker = findParentBroker();
  if (!broker) return records;
  for (Subscriber& record : records) {
    const mw::AnyObject service = broker->session()->ownService(record.module);
    record.isThere = static_cast<bool>(service);
    record.process = mw::processOf(service);
  }
  return records;
}

std::vector<MemoryInsight::Subscriber> HXMemory::subscribersOf(const std::string& key) const {
  const auto item = xGetSTMValue(key);
  return item ? placed(item->notifierRecords()) : std::vector<Subscriber>();
}

void HXMemory::forEachSubscribed(
    const std::function<void(const std::string& key, const std::vector<Subscriber>& subscribers)>& use) const {
  std::vector<std::shared_ptr<STMValue>> some;
  for (std::uint64_t place = 0; place != NameTable<STMValue>::kWalked;) {
    {
      const SharedLock lock(itemsLock);
      place = items.walk(place, NameTable<STMValue>::kWalked, kHomes, [&](std::string_view, const auto& item) {
        if (item->hasNotifiers()) some.push_back(item);
      });
    }
    for (const auto& item : some) {
      const auto records = placed(item->notifierRecords());
      if (!records.empty()) use(item->name(), records);
    }
    some.clear();
  }
}

std::vector<MemoryInsight::Call> HXMemory::calls() const { return NotifierLock::calls(); }
std::vector<MemoryInsight::Wait> HXMemory::waits() const { return NotifierLock::waits(); }
std::vector<MemoryInsight::Dropped> HXMemory::dropped() const { return DroppedSubscriptions::instance().all(); }

std::string HXMemory::extractorNameOf(const std::string& key) const {
  const SharedLock lock(eventExtractorsLock);
  const auto found = eventExtractors.find(key);
  return found == eventExtractors.end() || found->second.module == "Unknown" ? "" : found->second.module;
}

std::vector<std::pair<std::string, std::string>> HXMemory::extractedEvents() const {
  const SharedLock lock(eventExtractorsLock);
  std::vector<std::pair<std::string, std::string>> events;
  for (const auto& [event, extractor] : eventExtractors) {
    if (extractor.filed && !extractor.module.empty() && extractor.module != "Unknown") {
      events.emplace_back(event, extractor.module);
    }
  }
  return events;
}

/// Asked again by the same subscriber, it has been asked all the time. Without memory this goes unnoted: the extractor
/// has been asked.
void HXMemory::noteDemand(const std::string& extractor, const std::string& event, const std::string& subscriberId,
                          const std::string& failure) noexcept {
  try {
    const std::size_t end = subscriberId.ends_with(event) ? subscriberId.size() - event.size() : std::string::npos;
    Demand demand{extractor, event, subscriberId.substr(0, end), mw::systemNow(), failure};
    const MutexLock lock(insightLock);
    auto [known, isNew] = demanded.try_emplace({event, subscriberId});
    if (!isNew && known->second.extractor == extractor && known->second.failure == failure) return;
    known->second = std::move(demand);
    if (demanded.size() <= kDemandsKept) return;
    demanded.erase(std::ranges::min_element(demanded, {}, [](const auto& one) { return one.second.since; }));
  } catch (const std::bad_alloc&) {
  }
}

void HXMemory::forgetDemand(const std::string& event, const std::string& subscriberId) {
  const MutexLock lock(insightLock);
  demanded.erase({event, subscriberId});
}

std::vector<MemoryInsight::Demand> HXMemory::demands() const {
  std::vector<Demand> all;
  {
    const MutexLock lock(insightLock);
    for (const auto& [name, demand] : demanded) all.push_back(demand);
  }
  for (Demand& demand : all) {
    const auto item = xGetSTMValue(demand.event);
    const auto records = item ? item->notifierRecords() : std::vector<Subscriber>();
    demand.isSubscribed = std::ranges::find(records, demand.subscriber, &Subscriber::module) != records.end();
  }
  std::ranges::stable_sort(all, {}, [](const Demand& one) { return std::pair(one.extractor, one.event); });
  return all;
}

// Who reads the mappings needs one of the two locks with which they are changed.
HX_UNCHECKED std::vector<MemoryInsight::Mapping> HXMemory::mappings() const {
  const MutexLock lock(insightLock);
  std::vector<Mapping> all;
  for (const auto& [service, signalEvent] : pendingMappings) {
    for (const auto& [signal, event] : signalEvent) all.push_back({service, signal, event});
  }
  return all;
}

}  // namespace HX
