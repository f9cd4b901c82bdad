#pragma once

#include <hxbase/detail/nametable.h>
#include <hxbase/detail/tablelock.h>
#include <hxbase/stmvalue.h>
#include <hxcommon/datarestorer.h>
#include <hxcommon/hxmodule.h>
#include <hxcommon/memoryinsight.h>
#include <hxerror/hxerror.h>
#include <hxerror/mutex.h>
#include <hxjournal/journal.h>
#include <hxview/shown.h>
#include <libmw/session.h>
#include <libmw/trackable.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace HX {

/// The events that the memory raises about its own keys; the value is the name of the key concerned. Never raised for
/// names that begin with "_Behavior".
namespace Memory {
extern const std::string keyAddedKey;     ///< "HXMemory/KeyAdded"
extern const std::string keyRemovedKey;   ///< "HXMemory/KeyRemoved"
extern const std::string keyTypeChanged;  ///< "HXMemory/KeyTypeChanged"
}  // namespace Memory

/// The robot's shared memory: one table of named values, and the hub that hands events on.
///
/// A value flows from a module's proxy through the method table into a member here, into the item of its name, and,
/// when it was raised, on to the item's subscribers.
///
/// @par Threads
/// Every public method may be called from any thread, any number at once. Only `getDataOnChange` blocks by
/// design; raising runs the subscribers of this process on the raiser's thread.
///
/// @par Locks
/// Outer ones first: `itemsLock` before an item's value lock; `itemsLock` before `eventExtractorsLock`. Reads,
/// listings and writes that keep a key's kind share `itemsLock`; new keys, changes of kind and removals have it alone.
/// `mappingMutex` is held around everything that applying a mapping does, the declaration of its events included.
/// The journal's lock for who follows comes before `itemsLock`, the lock of its ring after an item's value lock.
/// `itemsLock` and an item's notifier lock are never held together, and no lock of the store is held while history is
/// pushed, a bookkeeping event is raised, or another module is called: all of these come back into the store.
///
/// One process has at most one memory.
///
/// Method words, messages and the stated line numbers of errors are relied on by callers and do not follow the code.
class HXMemory : public HXModule,
                 public journal::JournalOwner,
                 public MemoryInsight,
                 public DataRestorer,
                 public view::Host,
                 private journal::Source {
 public:
  /// How the journal is kept. As made: by the default event loop, in its usual size.
  struct JournalSettings {
    std::shared_ptr<journal::Executor> executor;  ///< Null: the default event loop.
    journal::Journal::Options options;
  };

  /// @throws HXError when the process has a memory already; whatever binding or the map file raise.
  HXMemory(const std::shared_ptr<HXBroker>& broker, const std::string& name);
  HXMemory(const std::shared_ptr<HXBroker>& broker, const std::string& name, const JournalSettings& settings);
  ~HXMemory() override;

  /// Raises the micro-event "KorvoReady" with 0.
  void init() override;

  /// Ends when the memory is about to be destroyed. For those who hold its address beyond their own end.
  mw::Lifetime::Token lifetime() const { return lifetime_.token(); }

  /// The feed of all changes of the memory. Values that are written through an address are not among them. Must not be
  /// used longer than the memory lives; a follower that does ends with it.
  journal::Journal& journal() { return *journal_; }
  std::shared_ptr<journal::Journal> sharedJournal() override { return journal_; }

  // --- What no feed tells: hxmemory_insight.cpp
  // ------------------------------------------------------------------------

  std::vector<Subscriber> subscribersOf(const std::string& key) const override;
  void forEachSubscribed(const std::function<void(const std::string& key, const std::vector<Subscriber>& subscribers)>&
                             use) const override;
  std::vector<Call> calls() const override;
  std::vector<Wait> waits() const override;
  std::string extractorNameOf(const std::string& key) const override;
  std::vector<std::pair<std::string, std::string>> extractedEvents() const override;
  std::vector<Demand> demands() const override;
  std::vector<Mapping> mappings() const override;
  std::vector<Dropped> dropped() const override;

  // What other processes view: hxmemory_views.cpp
  void showBy(const std::string& key, std::shared_ptr<const view::Shown> shown) override;

  // --- Data: hxmemory_store.cpp --------------------------------------------------------------------------------------

  /// Stores a value under a name as data. Nobody is notified. An event of that name becomes data.
  /// @throws HXError when an address of the old value was handed out and the types differ.
  void insertData(const std::string& key, const int& value);
  void insertData(const std::string& key, const float& value);
  void insertData(const std::string& key, const std::string& value);
  void insertData(const std::string& key, const HXValue& data);
  /// Stores each of [[name, value], …].
  /// @throws HXError at the first element that is no such pair; those before it stay stored.
  void insertListData(const HXValue& list);
  /// The value under a name; of an event, the last one raised.
  /// @throws HXError when there is none.
  HXValue getData(const std::string& key);
  /// Deprecated: the number is ignored.
  HXValue getData(const std::string& key, const int& deprecatedParameter);
  /// @throws HXError when the name is absent, or its address was handed out.
  void removeData(const std::string& key);
  bool restoreData(const std::string& key, const HXValue& value, const std::string& description,
                   DataRestorer::TimePoint time) override;

  // --- Questions: hxmemory_queries.cpp -------------------------------------------------------------------------------

  HXValue getDataTimestamp(const std::string& key);
  HXValue getEventHistory(const std::string& key);
  std::vector<std::string> getDataList(const std::string& filter);
  std::vector<std::string> getDataListName();
  /// Deprecated: waits, looking every 600 ms, until the value differs from what it was.
  /// @throws std::runtime_error when the memory leaves its broker meanwhile.
  HXValue getDataOnChange(const std::string& key, const int& deprecatedParameter);
  std::vector<std::string> getEventList();
  std::vector<std::string> getMicroEventList();
  std::vector<std::string> getListTyped(const STMValue::dataType& type);
  HXValue getListData(const HXValue& keyList);
  std::string getStrDataType(const std::string& key);
  STMValue::dataType getDataType(const std::string& key);
  void setDescription(const std::string& name, const std::string& description);
  HXValue getDescriptionList(const std::vector<std::string>& keylist);

  // --- Addresses: hxmemory_pointers.cpp ------------------------------------------------------------------------------

  /// The address of a value, for code of the same process; it stays good for the life of the memory.
  ///
  /// Read it with `std::atomic_ref(*address).load(std::memory_order_relaxed)`, and write it likewise: the memory does
  /// the same. A read sees some value that was stored whole, and nothing more is ordered by it.
  /// From then on the key can neither be removed nor change its type.
  /// @throws HXError when the value is of another type; the key stays marked all the same.
  void* getPtrData(const std::string& key);
  int* getIntPtr(const std::string& key);
  float* getFloatPtr(const std::string& key);
  /// Stores like `insertData`; the size is ignored.
  void _insertObject(const std::string& name, const HXValue& buffer, const int& bufferSize);

  // --- Events: hxmemory_events.cpp -----------------------------------------------------------------------------------

  void declareEvent(const std::string& eventName);
  void declareEvent(const std::string& eventName, const std::string& extractorName);
  /// Stores the value, adds it to the history, and tells every subscriber, also when it is the same as before.
  void raiseEvent(const std::string& name, const HXValue& value);
  /// The same without history.
  void raiseMicroEvent(const std::string& name, const HXValue& value);
  void removeEvent(const std::string& name);
  void removeMicroEvent(const std::string& name);
  std::vector<std::string> getExtractorEvent(const std::string& extractorName);

  // --- Subscriptions: hxmemory_subscriptions.cpp ---------------------------------------------------------------------

  void subscribeToEvent(const std::string& name, const std::string& callbackModule, const std::string& callbackMethod);
  void subscribeToEvent(const std::string& name, const std::string& callbackModule, const std::string& callbackMessage,
                        const std::string& callbackMethod);
  void subscribeToMicroEvent(const std::string& name, const std::string& callbackModule,
                             const std::string& callbackMessage, const std::string& callbackMethod);
  void unsubscribeToEvent(const std::string& name, const std::string& callbackModule);
  void unsubscribeToMicroEvent(const std::string& name, const std::string& callbackModule);
  std::vector<std::string> getDataSubscriber(const std::string& name);
  /// Deprecated, the three of them: only log that they are.
  void unregisterModuleReference(const std::string& moduleName);
  void subscribeOnDataSetTimePolicy(const std::string& name, const std::string& callbackModule, const int& nTimePolicy);
  void subscribeOnDataSetSynchronizeResponse(const std::string& name, const std::string& callbackModule,
                                             const bool& synchronizedResponse);

  // --- Signals: hxmemory_mapping.cpp ---------------------------------------------------------------------------------

  /// The object whose "signal" follows the event, which is declared when the name is absent. The same object each time.
  std::shared_ptr<HXMemorySubscriber> subscriber(const std::string& eventName);
  /// Raises `event` as a micro-event with every emission of a service's signal, now or once the service is there.
  /// @throws std::runtime_error from inside a subscriber that runs while a mapping is being applied on this thread.
  void addMapping(const std::string& service, const std::string& signal, const std::string& event);
  void addMapping(const std::string& service, const std::map<std::string, std::string>& signalEvent);

  /// Times 1000 writes by each of the three ways into the memory and prints the figures on standard output.
  void perf();

  // --- For callers of the same process: what the methods above rest on -----------------------------------------------

  /// @return Empty when the name is absent.
  std::shared_ptr<STMValue> xGetSTMValue(const std::string& name) const;
  /// Writes or files an item, and raises the bookkeeping event that goes with it. Tells no subscriber of the item.
  std::shared_ptr<STMValue> xInsertData(const std::string& name, const HXValue& value, STMValue::dataType kind);
  /// The item of that name as it is, or a new one that nobody is told of.
  std::shared_ptr<STMValue> xRequireSTMValue(const std::string& name, STMValue::dataType kind,
                                             const HXValue& defaultValue);
  void xRemoveData(const std::string& name);
  std::vector<std::string> xGetListTyped(STMValue::dataType type) const;
  void xRaiseEvent(const std::string& name, const HXValue& value);
  void xRaiseMicroEvent(const std::string& name, const HXValue& value);
  void xSubscribeToEvent(const std::string& name, const std::string& module, const HXValue& message,
                         const std::string& method);
  void xSubscribeToMicroEvent(const std::string& name, const std::string& module, const HXValue& message,
                              const std::string& method);
  void xUnsubscribeToEvent(const std::string& name, const std::string& module);
  void xUnsubscribeToMicroEvent(const std::string& name, const std::string& module);
  void xBoxSubscribeToEvent(const std::string& name, const std::string& callbackModule, const HXValue& callbackMessage,
                            const std::string& callbackMethod, bool micro);
  void xBoxUnsubscribeToEvent(const std::string& name, const std::string& callbackModule, bool micro);
  void runExtractor(const std::string& event, const std::string& subscriberId);
  void stopExtractor(const std::string& event, const std::string& subscriberId);
  void loadSignalEventMapFromFile();
  bool _parseEventFromLine(std::string line, std::string& service, std::string& signal, std::string& event) const;
  void declareEventsFromService(const std::string& service, const std::map<std::string, std::string>& signalEvent);
  void onServiceRegistered(const std::string& service);
  mw::AnyReference onSignalReceived(const std::string& event, const std::vector<mw::AnyReference>& args);

 private:
  /// Who generates an event. A subscription to an undeclared event leaves an entry that is not filed: it says that
  /// somebody asked, and is in no listing.
  struct Extractor {
    std::string module;  ///< "Unknown" or empty: nobody.
    bool filed = false;
  };
  using Extractors = std::map<std::string, Extractor>;

  /// An event's entry among the extractors, made before anything is changed: filing it cannot run out of memory.
  struct EventEntry {
    Extractors::node_type node;      ///< Empty once it is filed, and for what is no event.
    bool namesItsExtractor = false;  ///< Otherwise an extractor that is known already stays.
  };

  enum class Change { None, Added, Retyped };

  /// Refuses a second memory in the process, for as long as the first lives. The first member: it is taken before
  /// anything else exists, and given back when the construction fails.
  struct OnlyOne {
    OnlyOne();
    OnlyOne(const OnlyOne&) = delete;
    OnlyOne& operator=(const OnlyOne&) = delete;
    ~OnlyOne();
  };

  /// @param line  The caller's, where none is stated. By the builtin, since clang 14 has no std::source_location.
  [[noreturn]] static void fail(const char* method, const std::string& message, int line = __builtin_LINE());

  /// Looks at the calls of subscribers now and then, as long as the memory lives, and reports those that last.
  void patrol();
  void bindMethods();
  void bindReadingMethods();
  void bindWritingMethods();
  void bindSubscriptionMethods();
  void bindRemainingMethods();

  bool copyData(const std::string& name, HXValue& value) const;
  void write(const std::string& name, HXValue value, STMValue::dataType kind, std::shared_ptr<STMValue>* item,
             const std::string* extractor = nullptr);
  bool isRecording() const { return recording_.load(std::memory_order_relaxed); }
  const std::shared_ptr<STMValue>* findToOverwrite(const std::string& name, STMValue::dataType kind,
                                                   const std::shared_ptr<STMValue>* item) const
      HX_REQUIRES_SHARED(itemsLock);
  bool overwrite(const std::string& name, HXValue& value, STMValue::dataType kind, std::shared_ptr<STMValue>* item);
  bool overwriteTold(const std::string& name, HXValue& value, STMValue::dataType kind, std::shared_ptr<STMValue>* item);
  bool isShowing() const { return showing_.load(std::memory_order_relaxed); }
  const view::Shown* shownOf(const std::string& name) const HX_REQUIRES_SHARED(itemsLock);
  static void requireFilable(std::string_view name);
  Change file(const std::string& name, HXValue& value, STMValue::dataType kind, std::shared_ptr<STMValue>* item,
              EventEntry& entry);
  static EventEntry makeEntry(const std::string& name, const std::string* extractor);
  void fileEvent(EventEntry& entry);
  std::shared_ptr<STMValue> fileUnlessPresent(const std::shared_ptr<STMValue>& made);
  void subscribe(const std::string& name, STMValue::dataType kind, const std::string& module, const HXValue& message,
                 const std::string& method);
  void announce(const std::string& event, const HXValue& name);
  std::shared_ptr<STMValue> requireItem(const std::string& name, const char* method) const;
  void* pointerTo(const std::string& key, const char* method, const HXValue& defaultValue);
  HXValue describe(std::string_view name, const STMValue& item) const;
  std::string extractorOf(const std::string& event);
  void noteDemand(const std::string& extractor, const std::string& event, const std::string& subscriberId,
                  const std::string& failure) noexcept;
  void forgetDemand(const std::string& event, const std::string& subscriberId);
  std::vector<Subscriber> placed(std::vector<Subscriber> records) const;
  std::shared_ptr<HXProxy> frameManager(const char* caller);
  mw::AnyObject findService(const std::string& service, bool& found) const;
  bool noteMapped(const mw::AnyObject& object, const std::string& service, const std::string& signal);
  void applyPendingMappings();
  void mapSignal(const mw::AnyObject& object, const std::string& service, const std::string& signal,
                 const std::string& event, const char* caller);

  std::shared_ptr<journal::Executor> executorOf(const JournalSettings& settings) const;
  // What the journal asks for: hxmemory_journal.cpp.
  std::uint64_t walk(std::uint64_t place, std::uint64_t until, std::size_t homes,
                     journal::Visitor& visitor) const override;
  std::uint64_t placeOf(std::string_view name) const noexcept override;
  void show(std::span<const std::string> names, journal::Visitor& visitor) const override;
  void setRecording(bool on) override;

  const OnlyOne onlyOne_;
  mw::Lifetime lifetime_;
  Mutex frameManagerLock;  // Never held across a call.
  std::weak_ptr<HXProxy> frameManagerProxy HX_GUARDED_BY(frameManagerLock);
  Extractors eventExtractors HX_GUARDED_BY(eventExtractorsLock);
  mutable TableLock eventExtractorsLock;
  NameTable<STMValue> items HX_GUARDED_BY(itemsLock);
  // Of `items` it guards which item a name means, not what is in the item. And it guards `recording_`, which is written
  // under its exclusive side and read under either, so that no write goes by what it was before; a look without the
  // lock is a hint.
  mutable TableLock itemsLock;
  std::atomic<bool> recording_{false};
  // By what keys are viewed, also those that are not there. The flag, whether there is one, is written under the
  // exclusive side of the lock and otherwise a hint.
  std::map<std::string, std::shared_ptr<const view::Shown>, std::less<>> shown_ HX_GUARDED_BY(itemsLock);
  std::atomic<bool> showing_{false};
  // Changed with both `mappingMutex` and `insightLock` held, so that it is read under either.
  std::map<std::string, std::map<std::string, std::string>> pendingMappings HX_GUARDED_BY(mappingMutex);
  mutable Mutex insightLock;  // A leaf.
  // By event and the subscriber's identifier.
  std::map<std::pair<std::string, std::string>, Demand> demanded HX_GUARDED_BY(insightLock);
  /// Which signals of which object are connected. A service that restarts while notices wait is found by each of them,
  /// and is to be connected once; one that is back behind a lost connection has its connections again.
  struct MappedService {
    std::weak_ptr<mw::GenericObject> object;
    std::set<std::string> signals;
  };
  Mutex mappedLock;
  std::map<std::string, MappedService> mappedServices HX_GUARDED_BY(mappedLock);
  class MappingLock;
  Mutex mappingMutex;                          // Outer to `mappedLock`, `insightLock`.
  std::atomic<std::thread::id> mappingOwner_;  // The thread that holds `mappingMutex`, so that it is not asked to wait.
  mw::SignalLink serviceRegisteredLink = mw::kInvalidSignalLink;
  const std::shared_ptr<journal::Journal> journal_;
};

}  // namespace HX
