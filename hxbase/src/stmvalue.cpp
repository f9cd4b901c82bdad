#include "timepair.h"

#include <hxbase/stmvalue.h>
#include <hxerror/hxerror.h>
#include <hxerror/mutex.h>
#include <libmw/detail/racepoint.h>

#include <iterator>
#include <utility>

#include <boost/circular_buffer.hpp>

namespace HX {

HXBroker* staticBroker = nullptr;

namespace {

constexpr std::size_t kHistoryDepth = 50;

}  // namespace

STMValue::STMValue(HXMemory* memory, const std::string& name, HXValue value, dataType kind, mw::SystemTimePoint time)
    : itemSignal_(std::make_shared<HXMemorySubscriber>(memory, name)), notifierLock_(itemSignal_->signal.eventName()) {
  replaceValue(value, kind, time, nullptr, nullptr);
}

std::shared_ptr<STMValue> STMValue::create(HXMemory* memory, const std::string& name, HXValue value, dataType kind,
                                           mw::SystemTimePoint time) {
  std::shared_ptr<STMValue> made(new STMValue(memory, name, std::move(value), kind, time), &STMValue::retire);
  made->self_ = made;
  return made;
}

const char* STMValue::kindText(dataType kind) {
  switch (kind) {
    case UnknownData:
      return "Unknown data";
    case Data:
      return "Data";
    case ShmData:
      return "ShmData";
    case Event:
      return "Event";
    case MicroEvent:
      return "MicroEvent";
  }
  return "Unknown";
}

void STMValue::setValue(HXValue value, dataType kind, mw::SystemTimePoint time) {
  const Lock lock(valueLock_);
  replaceValue(value, kind, time, nullptr, nullptr);
}

STMValue::dataType STMValue::exchangeValue(HXValue& value, dataType kind, const Record* record,
                                           const view::Preparation* prepared) {
  const Lock lock(valueLock_);
  const auto before = static_cast<dataType>(kind_);
  replaceValue(value, kind, mw::systemNow(), record, prepared);
  return before;
}

bool STMValue::tryExchangeValue(HXValue& value, dataType kind, const Record* record,
                                const view::Preparation* prepared) {
  const Lock lock(valueLock_);
  return kind_ == kind && replaceValue(value, kind, mw::systemNow(), record, prepared);
}

inline bool STMValue::replaceValue(HXValue& value, dataType kind, mw::SystemTimePoint time, const Record* record,
                                   const view::Preparation* prepared) {
  if (dataPtrAccessed_) requireStorable(value);
  // One branch for both who may want to be told: as a rule there is neither.
  if ((record != nullptr) | (shown_ != nullptr)) [[unlikely]] {
    if (!tell(value, kind, time, record, prepared)) return false;
  } else {
    ++nth_;
    revision_ = 0;
  }
  if (!dataPtrAccessed_) {
    value_.swap(value);
    show();
  } else {
    // Whoever holds the address uses it without a lock: a number is replaced in place, in one piece, and the place of
    // one that is still to come is left alone.
    if (value.isScalar()) {
      value_.storeScalar(value);
    } else if (value.isValid()) {
      value_.swap(value);
    }
  }
  kind_ = static_cast<std::uint8_t>(kind);
  timestamp_ = time;
  return true;
}

void STMValue::requireStorable(const HXValue& value) const {
  const bool first = !value_.isValid() && (value.isInt() || value.isFloat());
  if (value.getType() == value_.getType() || first) return;
  throw HXError("HXMemory", "setValue",
                std::string("Can't change the type of the value from ") + HXValue::TypeToString(value_.getType()) +
                    " to " + HXValue::TypeToString(value.getType()) + " because getDataPtr has been called on it.");
}

void STMValue::show() {
  // Holders of the address change the value without a word: readers then have to look at the value itself.
  if (dataPtrAccessed_ || (value_.isValid() && !value_.isScalar())) {
    view_.hide();
  } else {
    view_.show(value_);
  }
}

HXValue STMValue::getValue() const {
  HXValue value;
  if (view_.read(value)) return value;
  const Lock lock(valueLock_);
  return copyValue();
}

HXValue STMValue::copyValue() const {
  const bool addressKnown = dataPtrAccessed_ && (value_.isScalar() || !value_.isValid());
  return addressKnown ? value_.loadScalar() : value_;
}

STMValue::dataType STMValue::getDataType() const {
  const Lock lock(valueLock_);
  return static_cast<dataType>(kind_);
}

HXValue STMValue::getValueTimeStamp() const {
  const Lock lock(valueLock_);
  HXValue value = copyValue();
  HX_RACE_POINT("a value is being shown with its time");
  return withTime(std::move(value), timestamp_);
}

bool STMValue::isDataPtrAccessed() const {
  const Lock lock(valueLock_);
  return dataPtrAccessed_;
}

void* STMValue::accessPointer(HXValue::Type type) {
  while (!markAddressKnown()) {
  }
  const Lock lock(valueLock_);
  if (type == HXValue::Type::Int) return value_.getIntPtr();
  return type == HXValue::Type::Float ? value_.getFloatPtr() : value_.getPtrValue();
}

void STMValue::reserveHistory() {
  if (historyReserved_.load(std::memory_order_relaxed)) return;
  auto ring = std::make_shared<History>(kHistoryDepth);
  const Lock lock(historyLock_);
  if (!historyRing_) historyRing_.swap(ring);
  historyReserved_.store(true, std::memory_order_relaxed);
}

void STMValue::pushHistory(const HXValue& value) {
  reserveHistory();
  HXValue entry(value);  // Takes the oldest value out of the lock before it dies.
  const Lock lock(historyLock_);
  raised_ = true;
  if (!value.isValid()) return;
  if (!historyRing_->full()) {
    historyRing_->push_back({mw::systemNow(), std::move(entry)});
  } else {
    historyRing_->rotate(std::next(historyRing_->begin()));
    historyRing_->back().first = mw::systemNow();
    historyRing_->back().second.swap(entry);
  }
}

HXValue STMValue::history() const {
  const Lock lock(historyLock_);
  if (!raised_) return {};
  HXValue::List entries;
  entries.reserve(historyRing_->size());
  for (const auto& [time, value] : *historyRing_) entries.push_back(withTime(value, time));
  return HXValue(std::move(entries));
}

}  // namespace HX
