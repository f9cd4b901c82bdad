#include <hxbase/hxmemory.h>
#include <hxerror/mutex.h>
#include <libmw/detail/racepoint.h>

#include <chrono>

namespace HX {
namespace {

constexpr std::chrono::milliseconds kPollingPeriod{600};

/// The name that an element of a key list stands for; what is no string counts by its text.
std::string keyOf(const HXValue& element) {
  const HXValue& key = element.isList() ? element[0] : element;
  const std::string* name = key.stringIf();
  return name ? *name : key.toString();
}

}  // namespace

HXValue HXMemory::getDataTimestamp(const std::string& key) { return requireItem(key, "getData")->getValueTimeStamp(); }

HXValue HXMemory::getEventHistory(const std::string& key) { return requireItem(key, "getEventHistory")->history(); }

std::vector<std::string> HXMemory::getDataListName() {
  const SharedLock lock(itemsLock);
  std::vector<std::string> names;
  names.reserve(items.size());
  items.forEach([&](std::string_view name, const auto&) { names.emplace_back(name); });
  return names;
}

std::vector<std::string> HXMemory::getDataList(const std::string& filter) {
  if (filter.empty()) return getDataListName();
  // Filtered under the lock: copying every name of a large table keeps writers out for longer than looking at it.
  const SharedLock lock(itemsLock);
  std::vector<std::string> names;
  items.forEach([&](std::string_view name, const auto&) {
    if (name.find(filter) != std::string_view::npos) names.emplace_back(name);
  });
  return names;
}

HXValue HXMemory::getDataOnChange(const std::string& key, const int& /*deprecatedParameter*/) {
  if (key.empty()) fail("getDataOnChange", "Empty data name cannot be found.");
  const HXValue first = getData(key);
  HXValue current;
  do {
    sleepFor(kPollingPeriod);
    current = getData(key);
  } while (current == first);
  return current;
}

std::vector<std::string> HXMemory::getEventList() {
  const SharedLock lock(eventExtractorsLock);
  std::vector<std::string> names;
  names.reserve(eventExtractors.size());
  for (const auto& [event, extractor] : eventExtractors) {
    if (extractor.filed) names.push_back(event);
  }
  return names;
}

std::vector<std::string> HXMemory::getMicroEventList() { return xGetListTyped(STMValue::MicroEvent); }

std::vector<std::string> HXMemory::getListTyped(const STMValue::dataType& type) { return xGetListTyped(type); }

std::vector<std::string> HXMemory::xGetListTyped(STMValue::dataType type) const {
  const SharedLock lock(itemsLock);
  std::vector<std::string> names;
  items.forEach([&](std::string_view name, const auto& item) {
    if (item->getDataType() == type) names.emplace_back(name);
  });
  return names;
}

HXValue HXMemory::getListData(const HXValue& keyList) {
  HXValue::List values;
  values.reserve(keyList.getSize());
  for (std::size_t i = 0; i < keyList.getSize(); ++i) {
    // An absent key leaves its place invalid, so that places and keys go together.
    copyData(keyOf(keyList[i]), values.emplace_back());
  }
  return HXValue(std::move(values));
}

std::string HXMemory::getStrDataType(const std::string& key) {
  return STMValue::kindText(requireItem(key, "getStrDataType")->getDataType());
}

STMValue::dataType HXMemory::getDataType(const std::string& key) {
  return requireItem(key, "getDataType")->getDataType();
}

void HXMemory::setDescription(const std::string& name, const std::string& description) {
  std::string text(description);  // Takes the old text out of the lock before it dies.
  const HXValue told(description);
  journal::Afterwards after(*journal_);
  const STMValue::Record record{*journal_, journal::What::Described, after};
  const Lock lock(itemsLock);
  const auto* found = items.find(name);
  if (!found) fail("setDescription", name + " not found");
  (*found)->swapDescription(text);
  (*found)->noteDescription(told, isRecording() ? &record : nullptr);
}

HXValue HXMemory::describe(std::string_view name, const STMValue& item) const {
  HXValue kind;
  switch (item.getDataType()) {
    case STMValue::Data:
      kind = "data";
      break;
    case STMValue::Event:
    case STMValue::MicroEvent:
      kind = "event";
      break;
    default:
      break;
  }
  return HXValue::list({name, std::move(kind), item.description()});
}

HXValue HXMemory::getDescriptionList(const std::vector<std::string>& keylist) {
  HXValue descriptions;
  const SharedLock lock(itemsLock);
  if (keylist.empty()) {
    descriptions.arrayReserve(items.size());
    items.forEach([&](std::string_view name, const auto& item) { descriptions.arrayPush(describe(name, *item)); });
    return descriptions;
  }
  // Callers skip as many invalid entries as they asked for names, and find the descriptions behind them.
  descriptions.arraySetSize(keylist.size());
  for (const std::string& name : keylist) {
    const auto* found = items.find(name);
    if (!found) fail("getDescriptionList", name + " not found");
    HX_RACE_POINT("a key is being described");
    descriptions.arrayPush(describe(name, **found));
  }
  return descriptions;
}

}  // namespace HX
