#pragma once

#include <hxerror/api.h>
#include <hxvalue/hxvalue.h>
#include <hxview/view.h>
#include <libmw/genericobject.h>

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <memory>
#include <string>
#include <type_traits>
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
  ///
  ///     memory->insertData("Arm/Speed", 0.5);
  ///     memory->insertData("Arm/Joints", std::array{0.1, 0.2, 0.3});
  ///
  /// @param key    Name of the value.
  /// @param value  Whatever becomes an HXValue, and is then of the nearest type that loses nothing: a bool, a number, a
  ///               text, bytes, a container of those. An enum is its number. Anything else does not compile.
  void insertData(const std::string& key, int value);
  void insertData(const std::string& key, float value);
  void insertData(const std::string& key, const HXValue& value);
  template <class T>
  void insertData(const std::string& key, const T& value) {
    if constexpr (std::is_convertible_v<const T&, std::string> && !std::is_convertible_v<const T&, const char*>) {
      insertText(key, value);
    } else {
      insertData(key, valueOf(value));
    }
  }
  template <class T>
  void insertData(const std::string& key, std::initializer_list<T> elements) {
    insertData(key, valueOf(elements));
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

  /// Stores the value, adds it to the history, and tells every subscriber, also when it is the same as before. A
  /// subscriber that is told for the first time is looked up first, which may end after this has returned.
  /// @param name   Name of the event.
  /// @param value  As for `insertData`.
  void raiseEvent(const std::string& name, const HXValue& value);
  template <class T>
  void raiseEvent(const std::string& name, const T& value) {
    raiseEvent(name, valueOf(value));
  }
  template <class T>
  void raiseEvent(const std::string& name, std::initializer_list<T> elements) {
    raiseEvent(name, valueOf(elements));
  }
  /// The same without history.
  void raiseMicroEvent(const std::string& name, const HXValue& value);
  template <class T>
  void raiseMicroEvent(const std::string& name, const T& value) {
    raiseMicroEvent(name, valueOf(value));
  }
  template <class T>
  void raiseMicroEvent(const std::string& name, std::initializer_list<T> elements) {
    raiseMicroEvent(name, valueOf(elements));
  }
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
  /// Deprecated, the three of them: only log that they are.
  void unregisterModuleReference(const std::string& moduleName);
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

  // --- Views ------------------------------------------------------------------------------------------------------

  /// Views a key: from then on its value is read at the speed of memory, without a call, wherever the memory runs.
  ///
  ///     auto speed = memory->view<float>("Arm/Speed");
  ///
  /// @tparam T      bool, int, std::int64_t, float, double; std::string, HXValue::Binary, HXValue; a std::array or
  ///                std::vector of numbers.
  /// @param key      Whether it is there or not. Declares nothing.
  /// @param options  How.
  /// @return To be kept, and read again and again. The key is viewed as long as it lives.
  /// @throws std::runtime_error when the broker offers no views, when one more exceeds a limit, which it names, and
  ///         when this system cannot share memory.
  template <view::Viewable T>
  View<T> view(const std::string& key, const ViewOptions& options = {}) const {
    return View<T>(openView(key, view::Scalar<T> ? 0 : capacityOf<T>(options), 0, options), options);
  }
  /// Reads every value that is written under a key from now on, the present one first.
  /// @param key      As above.
  /// @param depth    How many values are kept for who reads late: as many as are written in the longest time between
  ///                 two reads, twenty milliseconds at least.
  /// @param options  How.
  /// @return As above.
  /// @throws As above.
  template <view::Viewable T>
  Stream<T> stream(const std::string& key, std::size_t depth = 1024, const ViewOptions& options = {}) const {
    return Stream<T>(openView(key, capacityOf<T>(options), depth, options), options);
  }

  // --- Inside the module's process only --------------------------------------------------------------------------

  /// The address of a value, which stays good for the life of the memory. A key that is missing is made: with 0, and by
  /// `getDataPtr` without a value, whose place takes an int or a float later on.
  ///
  /// Read it with `std::atomic_ref(*address).load(std::memory_order_relaxed)`, and write it likewise: the memory does
  /// the same. From then on the key can neither be removed nor change its type.
  /// @throws HXError when the value is of another type, and the key stays marked all the same; std::runtime_error in
  ///         another process than the memory's.
  void* getDataPtr(const std::string& key);
  int* getIntPtr(const std::string& key);
  float* getFloatPtr(const std::string& key);

  /// Stores like `insertData`; the size is ignored.
  void _insertObject(const std::string& name, const HXValue& buffer, int bufferSize);
  /// Has the module time its own insertions and print the result on its standard output.
  void _perf();

 private:
  void insertText(const std::string& key, const std::string& value);
  std::shared_ptr<view::Opened> openView(const std::string& key, std::size_t capacity, std::size_t depth,
                                         const ViewOptions& options) const;

  template <class T>
  static std::size_t capacityOf(const ViewOptions& options) {
    constexpr std::size_t kLargestNumber = 9;
    constexpr std::size_t kSizeOfAList = 5;
    if constexpr (view::Scalar<T>) return sizeof(std::uint64_t);
    if constexpr (view::FixedList<T>) return kSizeOfAList + kLargestNumber * view::FixedListOf<T>::kSize;
    return options.capacity;
  }

  template <class T>
  static HXValue valueOf(const T& value) {
    if constexpr (std::is_enum_v<T>) {
      // An unscoped one converts as it would anywhere; without a type of its own its number is an int.
      if constexpr (std::is_convertible_v<T, int>) {
        return +value;
      } else {
        return static_cast<std::underlying_type_t<T>>(value);
      }
    } else {
      constexpr bool canBeStored = HXStorable<T>;
      static_assert(canBeStored,
                    "The memory keeps bools, numbers up to 64 bits, texts, bytes, and containers of those, and this "
                    "value is none of them.");
      if constexpr (canBeStored) {
        return value;
      } else {
        return {};
      }
    }
  }

  std::shared_ptr<HXProxy> proxy_;
};

}  // namespace HX
