#include "logcategories.h"

#include <hxbase/hxmemory.h>
#include <hxerror/mutex.h>
#include <libmw/batch.h>
#include <libmw/clock.h>
#include <libmw/detail/racepoint.h>

#include <cstdint>
#include <iostream>
#include <list>

namespace HX {
namespace {

/// So that every name, and lists of many, fit into a message.
constexpr std::size_t kLongestName = std::size_t{64} << 10;

/// The name as the bookkeeping events say it. Names of behaviour boxes come and go with every behaviour, and nobody
/// wants to hear of them: theirs is invalid.
HXValue announced(const std::string& name) { return name.starts_with("_Behavior") ? HXValue() : HXValue(name); }

/// What a write is told as. Who raises wants the item, to go on with; who declares does not.
journal::What whatOf(STMValue::dataType kind, const void* item) {
  if (kind == STMValue::MicroEvent) return journal::What::RaisedMicro;
  if (kind != STMValue::Event) return journal::What::Stored;
  return item ? journal::What::Raised : journal::What::Declared;
}

}  // namespace

void HXMemory::insertData(const std::string& key, const int& value) { write(key, value, STMValue::Data, nullptr); }

void HXMemory::insertData(const std::string& key, const float& value) { write(key, value, STMValue::Data, nullptr); }

void HXMemory::insertData(const std::string& key, const std::string& value) {
  write(key, value, STMValue::Data, nullptr);
}

void HXMemory::insertData(const std::string& key, const HXValue& data) { write(key, data, STMValue::Data, nullptr); }

void HXMemory::insertListData(const HXValue& list) {
  const auto malformed = [](const HXValue& element, const char* message, int line) {
    std::cout << "malformed data : " << element.toString() << '\n' << std::flush;
    fail("InsertListData", message, line);
  };
  const std::size_t size = list.getSize();
  if (size == 0) return;
  const mw::Batch batch;  // Whoever follows several of the keys is told of them in one go.
  // Callers know the index as a 16-bit one: a list that it cannot count to the end of is written round and round.
  constexpr std::size_t kIndices = std::size_t{1} << 16;
  if (size >= kIndices) {
    mw::log::warning("hxmemory", "insertListData",
                     "a list of " + std::to_string(size) +
                         " elements is written round and round, until the memory ends; 65535 is the most that ends");
  }
  for (std::uint16_t i = 0; i < size; ++i) {
    if (i == 0) checkRunning();
    const HXValue& element = list[i];
    if (!element.isList() || element.getSize() < 2) {
      malformed(element, "unable to insert to Memory data with a size < 2. Must be : ['name', value]", 902);
    }
    const std::string* name = element[0].stringIf();
    if (!name) malformed(element, "malformed preferences. No HXMemory data name.", 907);
    write(*name, element[1], STMValue::Data, nullptr);
  }
}

HXValue HXMemory::getData(const std::string& key) {
  HXValue value;
  if (!copyData(key, value)) fail("getData", "Data not found " + key, 535);
  return value;
}

HXValue HXMemory::getData(const std::string& key, const int& /*deprecatedParameter*/) { return getData(key); }

void HXMemory::removeData(const std::string& key) { xRemoveData(key); }

std::shared_ptr<STMValue> HXMemory::xGetSTMValue(const std::string& name) const {
  const SharedLock lock(itemsLock);
  const auto* found = items.find(name);
  return found ? *found : nullptr;
}

std::shared_ptr<STMValue> HXMemory::requireItem(const std::string& name, const char* method) const {
  auto item = xGetSTMValue(name);
  if (!item) fail(method, "Data not found " + name);
  return item;
}

/// Copies under the table's lock, which costs less than sharing the item to get out of it.
bool HXMemory::copyData(const std::string& name, HXValue& value) const {
  const SharedLock lock(itemsLock);
  const auto* found = items.find(name);
  if (!found) return false;
  value = (*found)->getValue();
  return true;
}

std::shared_ptr<STMValue> HXMemory::xInsertData(const std::string& name, const HXValue& value,
                                                STMValue::dataType kind) {
  std::shared_ptr<STMValue> item;
  write(name, value, kind, &item);
  return item;
}

/// All that takes memory comes before the first change, here and below: a write that fails for want of it has done
/// nothing.
/// @param value      Takes the old value, which may be large, out of the locks before it dies.
/// @param item       Filled when it is wanted, by those who go on to push history.
/// @param extractor  Of an event that is declared with one.
void HXMemory::write(const std::string& name, HXValue value, STMValue::dataType kind, std::shared_ptr<STMValue>* item,
                     const std::string* extractor) {
  if (!extractor) {
    const bool overwritten =
        isRecording() ? overwriteTold(name, value, kind, item) : overwrite(name, value, kind, item);
    if (overwritten) return;
    if (isShowing() && overwriteTold(name, value, kind, item)) return;
  }
  requireFilable(name);
  const HXValue news = announced(name);
  EventEntry entry = kind == STMValue::Event ? makeEntry(name, extractor) : EventEntry{};
  const Change change = file(name, value, kind, item, entry);
  if (change == Change::Added) announce(Memory::keyAddedKey, news);
  if (change == Change::Retyped) announce(Memory::keyTypeChanged, news);
}

/// Writes what is there already and stays what it is, which changes nothing in the table: other names can be read and
/// written meanwhile. A change of kind excludes them all, so that no listing shows some items from before it and some
/// from after.
bool HXMemory::overwrite(const std::string& name, HXValue& value, STMValue::dataType kind,
                         std::shared_ptr<STMValue>* item) {
  const SharedLock lock(itemsLock);
  if (isRecording()) [[unlikely]]
    return false;  // Since a moment ago. The other way to write records too.
  const auto* found = findToOverwrite(name, kind, item);
  if (!found || !(*found)->tryExchangeValue(value, kind)) return false;
  if (item) *item = *found;
  return true;
}

void HXMemory::requireFilable(std::string_view name) {
  if (name.size() <= kLongestName) return;
  fail("xInsertData",
       "a name of " + std::to_string(name.size()) + " bytes; no key has more than " + std::to_string(kLongestName));
}

/// The same while the journal records, and for keys that have to be prepared for those who view them: apart, so that
/// writes of which nobody is told do not pay for it.
[[gnu::noinline]] bool HXMemory::overwriteTold(const std::string& name, HXValue& value, STMValue::dataType kind,
                                               std::shared_ptr<STMValue>* item) {
  journal::Afterwards after(*journal_, !item);  // Who wants the item goes on.
  view::Afterwards wakes;
  const STMValue::Record record{*journal_, whatOf(kind, item), after};
  const SharedLock lock(itemsLock);
  const auto* found = findToOverwrite(name, kind, item);
  if (!found) return false;
  const view::Preparation prepared((*found)->shown(), value, wakes);
  if (!(*found)->tryExchangeValue(value, kind, isRecording() ? &record : nullptr, &prepared)) return false;
  if (item) *item = *found;
  return true;
}

inline const std::shared_ptr<STMValue>* HXMemory::findToOverwrite(const std::string& name, STMValue::dataType kind,
                                                                  const std::shared_ptr<STMValue>* item) const {
  const auto* found = items.find(name);
  if (!found || kind != STMValue::Event) return found;
  if (!(*found)->isFiledAsEvent()) return nullptr;
  if (item) (*found)->reserveHistory();
  return found;
}

HXMemory::Change HXMemory::file(const std::string& name, HXValue& value, STMValue::dataType kind,
                                std::shared_ptr<STMValue>* item, EventEntry& entry) {
  journal::Afterwards after(*journal_);
  view::Afterwards wakes;
  const STMValue::Record record{*journal_, whatOf(kind, item), after};
  const Lock lock(itemsLock);
  const STMValue::Record* const recorded = isRecording() ? &record : nullptr;
  const auto* found = items.find(name);
  const bool added = !found;
  const view::Shown* const shown = shownOf(name);
  const view::Preparation prepared(shown, value, wakes);
  const auto present = found ? *found : STMValue::create(this, name, std::move(value), kind, mw::systemNow());
  if (item && kind == STMValue::Event) present->reserveHistory();
  if (added) {
    items.insert(present->name(), present);
    if (recorded) present->recordMade(record);
    if (shown) present->appear(*shown);
  }
  if (entry.namesItsExtractor) fileEvent(entry);
  const STMValue::dataType before = added ? kind : present->exchangeValue(value, kind, recorded, &prepared);
  // An item that only a subscription made is an event already, and not filed as one.
  if (kind == STMValue::Event && (before != STMValue::Event || !present->isFiledAsEvent())) {
    fileEvent(entry);
    present->setFiledAsEvent();
  }
  if (item) *item = present;
  if (added) return Change::Added;
  return before == kind ? Change::None : Change::Retyped;
}

HXMemory::EventEntry HXMemory::makeEntry(const std::string& name, const std::string* extractor) {
  Extractors one;
  one.try_emplace(name, Extractor{extractor ? *extractor : "Unknown", true});
  return {one.extract(one.begin()), extractor != nullptr};
}

void HXMemory::fileEvent(EventEntry& entry) {
  if (!entry.node) return;
  const Lock lock(eventExtractorsLock);
  auto filed = eventExtractors.insert(std::move(entry.node));
  Extractor& present = filed.position->second;
  if (!filed.inserted && entry.namesItsExtractor) present.module.swap(filed.node.mapped().module);
  present.filed = true;
}

void HXMemory::announce(const std::string& event, const HXValue& name) {
  if (name.isValid()) xRaiseEvent(event, name);
}

std::shared_ptr<STMValue> HXMemory::xRequireSTMValue(const std::string& name, STMValue::dataType kind,
                                                     const HXValue& defaultValue) {
  if (auto item = xGetSTMValue(name)) return item;
  HX_RACE_POINT("an item that is required is missing");
  return fileUnlessPresent(STMValue::create(this, name, defaultValue, kind));
}

/// Another thread may have been faster; its item counts.
std::shared_ptr<STMValue> HXMemory::fileUnlessPresent(const std::shared_ptr<STMValue>& made) {
  requireFilable(made->name());
  journal::Afterwards after(*journal_);
  view::Afterwards wakes;
  const Lock lock(itemsLock);
  if (const auto* found = items.find(made->name())) return *found;
  const view::Shown* const shown = shownOf(made->name());
  const view::Preparation prepared(shown, made->getValue(), wakes);
  items.insert(made->name(), made);
  if (shown) made->appear(*shown);
  if (isRecording()) made->recordMade({*journal_, journal::What::Declared, after});
  return made;
}

bool HXMemory::restoreData(const std::string& key, const HXValue& value, const std::string& description,
                           DataRestorer::TimePoint time) {
  requireFilable(key);
  const HXValue news = announced(key);
  const HXValue told(description);
  const auto made = STMValue::create(this, key, value, STMValue::Data, time);
  std::string text(description);
  made->swapDescription(text);
  {
    journal::Afterwards afterMade(*journal_);
    journal::Afterwards afterDescribed(*journal_);
    view::Afterwards wakes;
    const Lock lock(itemsLock);
    if (items.find(key)) return false;
    const view::Shown* const shown = shownOf(key);
    const view::Preparation prepared(shown, value, wakes);
    items.insert(made->name(), made);
    if (shown) made->appear(*shown);
    if (isRecording()) made->recordMade({*journal_, journal::What::Stored, afterMade});
    const STMValue::Record described{*journal_, journal::What::Described, afterDescribed};
    if (!description.empty()) made->noteDescription(told, isRecording() ? &described : nullptr);
  }
  announce(Memory::keyAddedKey, news);
  return true;
}

void HXMemory::xRemoveData(const std::string& name) {
  const HXValue news = announced(name);
  std::shared_ptr<STMValue> removed;  // Let go of after the lock: the last reference may run what needs it.
  {
    journal::Afterwards after(*journal_);
    view::Afterwards wakes;
    std::list<journal::Grave> grave(1);  // In case that it records by then.
    const Lock lock(itemsLock);
    const auto* found = items.find(name);
    if (!found) fail("removeData", "Data not found " + name, 1175);
    if ((*found)->isDataPtrAccessed()) {
      fail("removeData", "Data " + name + " can't be erased because it has been accessed using getDataPtr", 1179);
    }
    const view::Preparation prepared((*found)->shown(), view::State::Absent, wakes);
    removed = items.extract(name);
    removed->disappear();
    if (isRecording()) removed->recordRemoval({*journal_, journal::What::Removed, after}, grave);
  }
  removed.reset();
  announce(Memory::keyRemovedKey, news);
}

}  // namespace HX
