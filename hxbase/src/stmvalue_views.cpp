#include <hxbase/stmvalue.h>
#include <libmw/detail/racepoint.h>

namespace HX {
namespace {

std::int64_t nanosecondsOf(mw::SystemTimePoint time) { return time.time_since_epoch().count(); }

}  // namespace

/// Tells the journal and those who view of a value that is about to be stored. Readers without a lock are turned away
/// from the old one first: who has seen a value in a view finds it, or a newer one, in the memory.
/// @return False when it has not been prepared for the views; nothing has happened then.
[[gnu::noinline]] bool STMValue::tell(const HXValue& value, dataType kind, mw::SystemTimePoint time,
                                      const Record* record, const view::Preparation* prepared) {
  if (shown_) {
    if (!shown_->isPlain() && !(prepared && prepared->isFor(*shown_))) return false;
    shown_->expect();
  }
  ++nth_;
  revision_ = 0;
  if (record) recordValue(value, kind, time, *record);
  if (shown_ && !dataPtrAccessed_) {
    view_.hide();
    shown_->publish(value, nanosecondsOf(time));
  }
  return true;
}

void STMValue::setShown(const view::Shown* shown) {
  // Nothing but the handing out of the address can come in between: all who write have the table's lock.
  HXValue value;
  mw::SystemTimePoint time;
  bool isAddressKnown = false;
  {
    const Lock lock(valueLock_);
    value = copyValue();
    time = timestamp_;
    isAddressKnown = dataPtrAccessed_;
  }
  if (shown && isAddressKnown) shown->introduce(view::State::AddressKnown);
  if (shown && !isAddressKnown) shown->introduce(value, nanosecondsOf(time));
  HX_RACE_POINT("a value is about to be viewed");
  const Lock lock(valueLock_);
  shown_ = shown;
  if (shown && isAddressKnown != dataPtrAccessed_) shown->introduce(view::State::AddressKnown);
}

void STMValue::appear(const view::Shown& shown) {
  const Lock lock(valueLock_);
  shown_ = &shown;
  shown.publishOld(value_, nanosecondsOf(timestamp_));
}

void STMValue::disappear() {
  const Lock lock(valueLock_);
  if (shown_) shown_->publish(view::State::Absent);
  shown_ = nullptr;
}

/// Whoever has the address writes through it, and tells nobody.
/// @return False when it is viewed otherwise since a moment ago.
bool STMValue::markAddressKnown() {
  view::Afterwards after;
  std::shared_ptr<const view::Shown> shown;
  {
    const Lock lock(valueLock_);
    if (shown_) shown = shown_->shared_from_this();
  }
  const view::Preparation prepared(shown.get(), view::State::AddressKnown, after);
  const Lock lock(valueLock_);
  if (!dataPtrAccessed_ && shown_ != shown.get()) return false;
  if (!dataPtrAccessed_ && shown_) shown_->publish(view::State::AddressKnown);
  dataPtrAccessed_ = true;
  show();
  return true;
}

}  // namespace HX
