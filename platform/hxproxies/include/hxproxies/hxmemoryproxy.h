#pragma once

#include <hxerror/api.h>
#include <hxvalue/hxvalue.h>
#include <libmw/genericobject.h>

#include <concepts>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace HX {

class HXProxy;

/// The methods of HXMemory as C++ functions, under the names that it publishes.
///
///     auto memory = broker->getSpecialisedProxy<HX::HXMemoryProxy>("HXMemory");
///     memory->insertData("Battery", 17);
///
/// A proxy is a handle: copies call the same module, and none of them keeps it alive.
///
/// @par Threads  Any number of threads may use one proxy at once. A call returns when the method has.
/// @par Errors   Every function throws what the module does: HXError where the module states it, for instance "Data
///   not found" with the key; std::runtime_error when the module is gone or cannot be reached.
class HX_API HXMemoryProxy {
 public:
  using Strings = std::vector<std::string>;

  /// @param proxy  As `HXBroker::getProxy` gives it.
  /// @throws std::runtime_error "This object is null" when it is empty.
  explicit HXMemoryProxy(std::shared_ptr<HXProxy> proxy);

  /// The proxy that this one calls through; never empty.
  const std::shared_ptr<HXProxy>& proxy() const { return proxy_; }

  // --- Values ---------------------------------------------------------------------------------------------------

  /// Stores `value` under `key`, which is made when there is none. Does not tell subscribers of events.
  void insertData(const std::string& key, int value);
  void insertData(const std::string& key, float value);
  void insertData(const std::string& key, const std::string& value);
  void insertData(const std::string& key, const char* value);
  void insertData(const std::string& key, const HXValue& value);
  /// A bool stays one. Only a bool: what merely converts to one, a pointer for instance, does not choose this.
  template <std::same_as<bool> Bool>
  void insertData(const std::string& key, Bool value) {
    insertData(key, HXValue(value));
  }
  /// @param list  [[key, value], …]
  void insertListData(const HXValue& list);

  /// @throws HXError "Data not found" with the key.
  HXValue getData(const std::string& key);
  /// Deprecated: the second argument has no effect.
  HXValue getData(const std::string& key, int deprecatedParameter);
  /// The values of `keyList`, in its order; invalid where there is no such key.
  HXValue getListData(const HXValue& keyList);
  /// Deprecated. Waits, without limit, until the value differs from what it is now. Its second argument has no effect.
  HXValue getDataOnChange(const std::string& key, int deprecatedParameter);

  void removeData(const std::string& key);

  // --- Questions ------------------------------------------------------------------------------------------------

  /// [value, seconds since the epoch, microseconds of that second]
  HXValue getTimestamp(const std::string& key);
  /// The latest values with which an event was raised, oldest first, each as `getTimestamp` gives it. Invalid for a key
  /// that was never raised.
  HXValue getEventHistory(const std::string& key);
  /// "Data", "Event" or "MicroEvent".
  std::string getType(const std::string& key);
  /// The keys that contain `filter`, in no order; all of them when it is empty.
  Strings getDataList(const std::string& filter);
  Strings getDataListName();
  Strings getEventList();
  Strings getMicroEventList();

  void setDescription(const std::string& name, const std::string& description);
  /// Descriptions as [name, kind, text].
  /// @param keylist  Empty for all keys. Otherwise the result begins with as many invalid entries as there are keys.
  HXValue getDescriptionList(const Strings& keylist);

  // --- Events ---------------------------------------------------------------------------------------------------

  void declareEvent(const std::string& eventName);
  /// @param eventName      Key.
  /// @param extractorName  The module that is told of subscriptions, so that it may start and stop producing.
  void declareEvent(const std::string& eventName, const std::string& extractorName);
  Strings getExtractorEvent(const std::string& extractorName);

  /// Stores `value` and tells every subscriber before it returns.
  void raiseEvent(const std::string& name, const HXValue& value);
  void raiseMicroEvent(const std::string& name, const HXValue& value);
  void removeEvent(const std::string& name);
  void removeMicroEvent(const std::string& name);

  /// Has `callbackMethod` of module `callbackModule` called with (name, value, message) at each raise.
  void subscribeToEvent(const std::string& name, const std::string& callbackModule, const std::string& callbackMethod);
  /// Deprecated: use the form without a message.
  void subscribeToEvent(const std::string& name, const std::string& callbackModule, const std::string& callbackMessage,
                        const std::string& callbackMethod);
  void subscribeToMicroEvent(const std::string& name, const std::string& callbackModule,
                             const std::string& callbackMessage, const std::string& callbackMethod);
  void unsubscribeToEvent(const std::string& name, const std::string& callbackModule);
  void unsubscribeToMicroEvent(const std::string& name, const std::string& callbackModule);
  Strings getSubscribers(const std::string& name);
  /// Ends every subscription of a module that has left.
  void unregisterModuleReference(const std::string& moduleName);

  /// @param name            Key.
  /// @param callbackModule  Subscriber.
  /// @param nTimePolicy  Smallest time between two notifications, milliseconds; 0 for every change.
  void _subscribeOnDataSetTimePolicy(const std::string& name, const std::string& callbackModule, int nTimePolicy);
  void _subscribeOnDataSetSynchronizeResponse(const std::string& name, const std::string& callbackModule,
                                              bool synchronizedResponse);

  // --- Signals --------------------------------------------------------------------------------------------------

  /// The object whose signal "signal" is emitted, with the value, at each raise. Declares the event when there is none.
  mw::AnyObject subscriber(const std::string& eventName);

  /// Raises `event` whenever `service` emits `signal`; also when the service appears later.
  void addMapping(const std::string& service, const std::string& signal, const std::string& event);
  /// @param service      Whose signals they are.
  /// @param signalEvent  Signals with the event of each.
  void addMapping(const std::string& service, const std::map<std::string, std::string>& signalEvent);

  // --- Inside the module's process only --------------------------------------------------------------------------

  /// The address of a scalar, which is made when there is none. Good for as long as the module lives; the key cannot be
  /// removed any more. Elsewhere than in the module's process, an error.
  void* getDataPtr(const std::string& key);
  int* getIntPtr(const std::string& key);
  float* getFloatPtr(const std::string& key);

  void _insertObject(const std::string& name, const HXValue& buffer, int bufferSize);
  /// Has the module time its own insertions and print the result on its standard output.
  void _perf();

 private:
  std::shared_ptr<HXProxy> proxy_;
};

}  // namespace HX
