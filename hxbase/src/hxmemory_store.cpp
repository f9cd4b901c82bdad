#include "logcategories.h"

#include <hxbase/hxmemory.h>
#include <libmw/clock.h>

#include <cstdint>
#include <iostream>
#include <mutex>

namespace HX {
namespace {

/// Names of behaviour boxes come and go with every behaviour, and nobody wants to hear of them.
bool isSilent(const std::string& name) { return name.starts_with("_Behavior"); }

}  // namespace

void HXMemory::insertData(const std::string& key, const int& value) {
  xInsertData(key, HXValue(value), STMValue::Data);
}

void HXMemory::insertData(const std::string& key, const float& value) {
  xInsertData(key, HXValue(value), STMValue::Data);
}

void HXMemory::insertData(const std::string& key, const std::string& value) {
  xInsertData(key, HXValue(value), STMValue::Data);
}

void HXMemory::insertData(const std::string& key, const HXValue& data) { xInsertData(key, data, STMValue::Data); }

void HXMemory::insertListData(const HXValue& list) {
  const auto malformed = [](const HXValue& element, const char* message, int line) {
    std::cout << "malformed data : " << element.toString() << '\n' << std::flush;
    fail("InsertListData", message, line);
  };
  const std::size_t size = list.getSize();
  if (size == 0) return;
  // Callers know the index as a 16-bit one: a list that it cannot count to the end of is written round and round.
  for (std::uint16_t i = 0; i < size; ++i) {
    if (i == 0) checkRunning();
    const HXValue& element = list[i];
    if (!element.isList() || element.getSize() < 2) {
      malformed(element, "unable to insert to Memory data with a size < 2. Must be : ['name', value]", 902);
    }
    const std::string* name = element[0].stringIf();
    if (!name) malformed(element, "malformed preferences. No HXMemory data name.", 907);
    xInsertData(*name, element[1], STMValue::Data);
  }
}

HXValue HXMemory::getData(const std::string& key) {
  const auto item = xGetSTMValue(key);
  if (!item) fail("getData", "Data not found " + key, 535);
  return item->getValue();
}

HXValue HXMemory::getData(const std::string& key, const int& /*deprecatedParameter*/) { return getData(key); }

void HXMemory::removeData(const std::string& key) { xRemoveData(key); }

std::shared_ptr<STMValue> HXMemory::xGetSTMValue(const std::string& name) const {
  const boost::shared_lock lock(itemsLock);
  const auto found = items.find(name);
  return found == items.end() ? nullptr : found->second;
}

std::shared_ptr<STMValue> HXMemory::requireItem(const std::string& name, const char* method) const {
  auto item = xGetSTMValue(name);
  if (!item) fail(method, "Data not found " + name);
  return item;
}

std::shared_ptr<STMValue> HXMemory::xInsertData(const std::string& name, const HXValue& value,
                                                STMValue::dataType kind) {
  std::shared_ptr<STMValue> item;
  HXValue exchanged(value);  // Takes the old value, which may be large, out of the locks before it dies.
  const Change change = file(name, exchanged, kind, item);
  if (change == Change::Added) announce(Memory::keyAddedKey, name);
  if (change == Change::Retyped) announce(Memory::keyTypeChanged, name);
  return item;
}

HXMemory::Change HXMemory::file(const std::string& name, HXValue& value, STMValue::dataType kind,
                                std::shared_ptr<STMValue>& item) {
  const std::unique_lock lock(itemsLock);
  const auto found = items.find(name);
  if (found == items.end()) {
    item = STMValue::create(this, name, std::move(value), kind, mw::systemNow());
    items.emplace(name, item);
    if (kind == STMValue::Event) fileEvent(name);
    item->filedAsEvent = kind == STMValue::Event;
    return Change::Added;
  }
  item = found->second;
  const STMValue::dataType before = item->getDataType();
  item->exchangeValue(value, kind, mw::systemNow());
  // An item that only a subscription made is an event already, and not filed as one.
  if (kind == STMValue::Event && (before != STMValue::Event || !item->filedAsEvent)) {
    fileEvent(name);
    item->filedAsEvent = true;
  }
  return before == kind ? Change::None : Change::Retyped;
}

void HXMemory::fileEvent(const std::string& name) {
  const std::unique_lock lock(eventExtractorsLock);
  eventExtractors.try_emplace(name, Extractor{"Unknown", true}).first->second.filed = true;
}

void HXMemory::announce(const std::string& event, const std::string& name) {
  if (!isSilent(name)) xRaiseEvent(event, HXValue(name));
}

std::shared_ptr<STMValue> HXMemory::xRequireSTMValue(const std::string& name, STMValue::dataType kind,
                                                     const HXValue& defaultValue) {
  if (auto item = xGetSTMValue(name)) return item;
  const auto made = STMValue::create(this, name, defaultValue, kind);
  const std::unique_lock lock(itemsLock);
  // Another thread may have been faster; its item counts.
  return items.try_emplace(name, made).first->second;
}

void HXMemory::xRemoveData(const std::string& name) {
  Items::node_type removed;  // Let go of after the lock: the last reference may run what needs it.
  {
    const std::unique_lock lock(itemsLock);
    const auto found = items.find(name);
    if (found == items.end()) fail("removeData", "Data not found " + name, 1175);
    if (found->second->isDataPtrAccessed()) {
      fail("removeData", "Data " + name + " can't be erased because it has been accessed using getDataPtr", 1179);
    }
    removed = items.extract(found);
  }
  removed = {};
  announce(Memory::keyRemovedKey, name);
}

}  // namespace HX
