#pragma once

#include <hxbase/detail/notifierlock.h>
#include <hxbase/detail/scalarview.h>
#include <hxbase/hxmemorysignal.h>
#include <hxbase/stmnotifier.h>
#include <hxcommon/memoryinsight.h>
#include <hxerror/mutex.h>
#include <hxjournal/journal.h>
#include <hxvalue/detail/wordlock.h>
#include <hxvalue/hxvalue.h>
#include <hxview/shown.h>
#include <libmw/clock.h>
#include <libmw/future.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <boost/circular_buffer_fwd.hpp>

namespace HX {

class HXBroker;
class HXMemory;

/// The broker that hosts the memory: where notification finds its subscribers. Not owned. Written when a memory is made
/// and when it goes, with no other thread in it.
extern HXBroker* staticBroker;

/// One item of the memory: its value and kind, its history, its subscriptions, its signal.
///
/// Lifetime: made by `create`, shared by the table and by whoever looked it up, so that an item taken out of the table
/// stays whole for those who still work on it. When the last reference goes while notifications are pending, the item
/// is destroyed on the event loop: its destructor waits for them, and the last reference may well fall inside one of
/// them, or under a lock that they need.
///
/// @par Locks
/// `valueLock`, `historyLock` and `notifierLock` are independent; no operation holds two of them. `recordsLock` is a
/// leaf below `notifierLock`. Only `valueLock` is ever taken while the table's lock is held, before it that of what
/// shows the value, and under it the lock of the journal's ring. While `notifierLock` is held, subscribers are called;
/// it is recursive, because they may come back into the item on the same thread.
class alignas(64) STMValue {
 public:
  /// What an item is kept as. The numbers are part of the interface.
  enum dataType : std::int32_t { UnknownData = 0, Data = 1, ShmData = 2, Event = 3, MicroEvent = 4 };

  /// What a write needs to be appended to the journal.
  struct Record {
    journal::Journal& journal;
    journal::What what;
    journal::Afterwards& after;
  };

  /// Makes an item.
  /// @param memory  Owner, for the signal; not kept alive.
  /// @param name    The name that it is filed under; the item does not keep it, the signal does.
  /// @param value   Its first value.
  /// @param kind    Its first kind.
  /// @param time    Of the last write; the epoch for an item that has never been written.
  static std::shared_ptr<STMValue> create(HXMemory* memory, const std::string& name, HXValue value = {},
                                          dataType kind = UnknownData, mw::SystemTimePoint time = {});
  STMValue(const STMValue&) = delete;
  STMValue& operator=(const STMValue&) = delete;

  /// Destroys what is still waiting to be destroyed on the event loop; returns when it is done.
  static void drainRetired();

  /// Sets the broker whose session notification looks subscribers up with. Neither is kept alive; empty clears it.
  static void setBrokerInstance(const std::shared_ptr<HXBroker>& broker);

  /// "Data", "Event", …; "Unknown" for a number that is no kind.
  static const char* kindText(dataType kind);

  // --- Value ---------------------------------------------------------------------------------------------------------

  /// Replaces value, kind and time.
  /// @throws HXError when an address of the value was handed out and the new value is of another type; nothing changes.
  ///         A value that is not set yet takes an int or a float all the same.
  void setValue(HXValue value, dataType kind, mw::SystemTimePoint time);
  /// As `setValue` with the present time.
  /// @param value     The new one; the old one afterwards, to be destroyed by the caller outside its locks.
  /// @param kind      The new one.
  /// @param record    Null while the journal does not record.
  /// @param prepared  With this value; null where nobody views it, or only as a number and without waiting.
  /// @return The kind before.
  dataType exchangeValue(HXValue& value, dataType kind, const Record* record = nullptr,
                         const view::Preparation* prepared = nullptr);
  /// The same for an item that is of this kind already.
  /// @return False when it is of another kind, or is viewed so that it has to be prepared; nothing changes.
  bool tryExchangeValue(HXValue& value, dataType kind, const Record* record = nullptr,
                        const view::Preparation* prepared = nullptr);

  HXValue getValue() const;
  dataType getDataType() const;
  /// [value, seconds, microseconds] of the last write.
  HXValue getValueTimeStamp() const;
  bool isDataPtrAccessed() const;
  /// Marks the item as one whose address is known, for good, and gives the address.
  /// @param type  Int or Float; any other for the address of whichever scalar is there, or is still to come.
  /// @throws std::runtime_error when the value is of another type; the mark stays.
  void* accessPointer(HXValue::Type type);

  // --- Journal: stmvalue_record.cpp ----------------------------------------------------------------------------------

  /// Appends the making of the item, the last change to it.
  void recordMade(const Record& record);
  /// Counts a new description, and appends it when `record` is not null.
  void noteDescription(const HXValue& text, const Record* record);
  /// Appends that the item has been taken out of the table. `grave` takes the name: one element.
  void recordRemoval(const Record& record, std::list<journal::Grave>& grave);
  journal::State state() const;

  // --- Views: stmvalue_views.cpp. Under the table's lock, its exclusive side to change by what the value is shown ----

  /// Null when nobody views it.
  const view::Shown* shown() const { return shown_; }
  /// Shows it by this from now on, which must live until something else takes its place; null for nothing.
  void setShown(const view::Shown* shown);
  /// It has come into the table, where it is viewed already.
  void appear(const view::Shown& shown);
  /// It has been taken out of the table. Prepared to be absent.
  void disappear();

  // --- History -------------------------------------------------------------------------------------------------------

  /// Makes the room that `pushHistory` needs, which then does not fail.
  void reserveHistory();
  /// Appends a raised value with the current time; the last 50 are kept. Invalid values are not recorded.
  void pushHistory(const HXValue& value);
  /// A list of [value, seconds, microseconds], oldest first; invalid before the first `pushHistory`.
  HXValue history() const;

  // --- Subscriptions -------------------------------------------------------------------------------------------------

  /// Subscribes `module`, in place of an earlier subscription of the same module.
  void setNotifier(const std::string& module, const HXValue& message, const std::string& method);
  /// @throws HXError when `module` is not subscribed.
  void unsubscribeNotifier(const std::string& module, const std::string& itemName);
  /// Names of the subscribers, ascending.
  std::vector<std::string> getNotifierList() const;
  /// Whether somebody is subscribed, or is being called.
  bool hasNotifiers() const { return !quiet_.load(std::memory_order_acquire); }
  /// What is known of the subscriptions, but where the subscribers are. Waits for none of them.
  std::vector<MemoryInsight::Subscriber> notifierRecords() const;
  /// Forgets the notifications that are no longer in flight.
  void xCleanFinished();
  /// How many of them are kept, those included that have ended since they were last cleaned up. For diagnosis.
  std::size_t pendingCount() const;

  /// Tells the signal's clients and then every subscriber of `value`, in ascending order of their names.
  ///
  /// A subscriber met for the first time is looked up without waiting, and called as soon as it is found; the others
  /// are called here, on this thread. Those that cannot be found, or fail with a runtime error, are forgotten.
  /// @param key    The name that was raised; handed on as it is.
  /// @param value  What each of them is given.
  /// @throws What a subscriber throws that is not a runtime error; the rest are then not told.
  void notify(const std::string& key, const HXValue& value);

  /// The object that exposes the item as a signal. Never null.
  const std::shared_ptr<HXMemorySubscriber>& subscriber() const { return itemSignal_; }

  /// The name that it is filed under, at the same place for the life of the item.
  const std::string& name() const { return itemSignal_->signal.eventName(); }

  // Guarded by the table's lock: read under either side of it, changed under the exclusive one.

  /// Whether the name has been filed among the events since this item exists.
  bool isFiledAsEvent() const { return filedAsEvent_; }
  void setFiledAsEvent() { filedAsEvent_ = true; }
  /// Free text about the item.
  const std::string& description() const { return description_; }
  void swapDescription(std::string& text) { description_.swap(text); }

 private:
  using Notifiers = std::map<std::string, STMNotifier>;
  class Dispatch;

  STMValue(HXMemory* memory, const std::string& name, HXValue value, dataType kind, mw::SystemTimePoint time);
  ~STMValue();
  static void retire(STMValue* item);
  bool hasPending() const;
  /// @return What cannot be cancelled, and what has ended, for whoever waits.
  std::list<mw::Future<void>> cancelPending();

  void tellNotifiers(const std::string& key, const HXValue& value);
  void call(STMNotifier& record, const std::string& key, const HXValue& value, NotifierLock::Calls& calls,
            const char* function) HX_REQUIRES(notifierLock_);
  void look(const std::string& module, const std::string& key, const HXValue& value) HX_REQUIRES(notifierLock_);
  void resolveAndCall(const mw::AnyObject& service, const std::string& module, const std::string& key,
                      const HXValue& value);
  void reportAndClean(const std::string& module, const mw::Future<void>& outcome);
  void removeNotifier(Notifiers::iterator record) HX_REQUIRES(notifierLock_);
  /// The same for a subscriber whose call failed: who subscribed has to hear of it.
  void endNotifier(Notifiers::iterator record, const std::exception& error, const char* function)
      HX_REQUIRES(notifierLock_);
  void noteQuiet() HX_REQUIRES(notifierLock_);

  bool replaceValue(HXValue& value, dataType kind, mw::SystemTimePoint time, const Record* record,
                    const view::Preparation* prepared) HX_REQUIRES(valueLock_);
  bool tell(const HXValue& value, dataType kind, mw::SystemTimePoint time, const Record* record,
            const view::Preparation* prepared) HX_REQUIRES(valueLock_);
  bool markAddressKnown();
  void requireStorable(const HXValue& value) const HX_REQUIRES(valueLock_);
  void recordValue(const HXValue& value, dataType kind, mw::SystemTimePoint time, const Record& record)
      HX_REQUIRES(valueLock_);
  journal::Entry entry(const HXValue& value, journal::What what) const HX_REQUIRES(valueLock_);
  void show() HX_REQUIRES(valueLock_);
  HXValue copyValue() const HX_REQUIRES(valueLock_);

  // Together on the first cache line: all that reading a number, or writing a value, touches.
  ScalarView view_;  // What readers of a number get without a lock. Written under valueLock_.
  // The small ones behind the value lie in its end, which it leaves free.
  [[no_unique_address]] HXValue value_ HX_GUARDED_BY(valueLock_);
  std::uint8_t kind_ HX_GUARDED_BY(valueLock_) = UnknownData;  // A dataType.
  bool dataPtrAccessed_ HX_GUARDED_BY(valueLock_) = false;
  bool filedAsEvent_ = false;                        // Guarded by the table's lock.
  std::uint32_t nth_ HX_GUARDED_BY(valueLock_) = 0;  // How often it was changed.
  mw::SystemTimePoint timestamp_ HX_GUARDED_BY(valueLock_){};
  std::uint64_t revision_ HX_GUARDED_BY(valueLock_) = 0;  // Of the last change; 0 when it was not recorded.
  // By what other processes view it; null as a rule. Changed under the table's exclusive lock and valueLock_, and so
  // read under either.
  const view::Shown* shown_ = nullptr;
  mutable WordLock valueLock_;

  // Together on the second: all else that a raise touches while nobody is subscribed.
  using History = boost::circular_buffer<std::pair<mw::SystemTimePoint, HXValue>>;
  alignas(64) const std::shared_ptr<HXMemorySubscriber> itemSignal_;
  std::shared_ptr<History> historyRing_ HX_GUARDED_BY(historyLock_);  // Empty until it is needed.
  mutable WordLock historyLock_;
  bool raised_ HX_GUARDED_BY(historyLock_) = false;  // Something was pushed, if only an invalid value.
  std::atomic<bool> historyReserved_{false};         // `historyRing_` is there for good.
  // Nobody is subscribed and nobody is being called, so that a raise has no business with notifierLock_, under which
  // this is written.
  std::atomic<bool> quiet_{true};

  // Changed with both notifierLock_ and recordsLock_ held, so that it is read under either: who only wants to know who
  // is subscribed does not wait for those that are being called.
  Notifiers notifiers_ HX_GUARDED_BY(notifierLock_);
  mutable WordLock recordsLock_;
  std::weak_ptr<STMValue> self_;
  mutable NotifierLock notifierLock_;
  std::list<mw::Future<void>> pendingNotifications_ HX_GUARDED_BY(notifierLock_);

  // A record that goes while it is being called still owns the method's name, the message and the call state, and a
  // proxy that is replaced is still being called through: they wait here until the outermost dispatch ends. `changes_`
  // tells a walk whether its iterator is still good.
  std::multimap<std::string, STMNotifier> removed_ HX_GUARDED_BY(notifierLock_);
  std::vector<std::shared_ptr<HXProxy>> replaced_ HX_GUARDED_BY(notifierLock_);
  std::uint64_t changes_ HX_GUARDED_BY(notifierLock_) = 0;
  int dispatching_ HX_GUARDED_BY(notifierLock_) = 0;
  std::string description_;  // Guarded by the table's lock.
};

}  // namespace HX
