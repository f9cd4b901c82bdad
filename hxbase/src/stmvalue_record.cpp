#include <hxbase/stmvalue.h>
#include <hxerror/mutex.h>
#include <libmw/detail/racepoint.h>

#include <list>

namespace HX {

/// Appends what is about to be stored. Who was told a change finds that value or a newer one: readers without a lock
/// are turned away from the old one before it is appended, and wait for the item's lock. Who has seen a value finds its
/// change in the journal: it is shown after that.
void STMValue::recordValue(const HXValue& value, dataType kind, mw::SystemTimePoint time, const Record& record) {
  journal::Entry change = entry(value, record.what);
  change.time = time;
  change.kind = static_cast<std::uint8_t>(kind);
  change.changedKind = kind_ != kind;
  view_.hide();
  revision_ = record.journal.append(std::move(change), record.after);
  HX_RACE_POINT("a change is told, and not shown yet");
}

journal::Entry STMValue::entry(const HXValue& value, journal::What what) const {
  journal::Entry entry;
  entry.value = value;
  entry.time = timestamp_;
  entry.setName(name());
  entry.nth = nth_;
  entry.what = what;
  entry.kind = kind_;
  entry.byAddress = dataPtrAccessed_;
  return entry;
}

void STMValue::recordMade(const Record& record) {
  const Lock lock(valueLock_);
  revision_ = record.journal.append(entry(value_, record.what), record.after);
}

void STMValue::noteDescription(const HXValue& text, const Record* record) {
  const Lock lock(valueLock_);
  ++nth_;
  revision_ = record ? record->journal.append(entry(text, record->what), record->after) : 0;
}

void STMValue::recordRemoval(const Record& record, std::list<journal::Grave>& grave) {
  const Lock lock(valueLock_);
  ++nth_;
  grave.front().name = itemSignal_->signal.sharedEventName();
  record.journal.appendRemoval(entry({}, record.what), grave, record.after);
}

journal::State STMValue::state() const {
  const Lock lock(valueLock_);
  return {copyValue(), timestamp_, revision_, nth_, kind_, dataPtrAccessed_};
}

}  // namespace HX
