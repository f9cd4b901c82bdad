#include <hxbase/hxmemory.h>

// The published names, texts and their order are the module's interface: callers introspect them, and modules in the
// field compare them. Odd spellings have been published as well, and stay.

namespace HX {
namespace {

using Text = const std::string&;

constexpr int kSameProcessOnly = 4;  // The result is an address.

}  // namespace

void HXMemory::bindMethods() {
  bindReadingMethods();
  bindWritingMethods();
  bindSubscriptionMethods();
  bindRemainingMethods();
}

// A table reads best in one piece, however long.
// NOLINTBEGIN(readability-function-size)

void HXMemory::bindReadingMethods() {
  functionName("declareEvent", getName(), "Declares an event to allow future subscriptions to the event");
  addParam("eventName", "The name of the event");
  bindMethodOverload(createFunctor(this, static_cast<void (HXMemory::*)(Text)>(&HXMemory::declareEvent)));

  functionName("declareEvent", getName(), "Declares an event to allow future subscriptions to the event");
  addParam("eventName", "The name of the event");
  addParam("extractorName", "The name of the extractor capable of creating the event");
  bindMethodOverload(createFunctor(this, static_cast<void (HXMemory::*)(Text, Text)>(&HXMemory::declareEvent)));

  functionName("getData", getName(), "Gets the value of a key-value pair stored in memory");
  addParam("key", "Name of the value.");
  setReturn("data", "The data as an HXValue. This can often be cast transparently into the original type.");
  bindMethodOverload(createFunctor(this, static_cast<HXValue (HXMemory::*)(Text)>(&HXMemory::getData)));

  functionName(
      "getData", getName(),
      "DEPRECATED - Gets the value of a key-value pair stored in memory. Please use the version of this method "
      "with no second parameter.");
  addParam("key", "Name of the value.");
  addParam("deprecatedParameter", "DEPRECATED - This parameter has no effect, but is left for compatibility reason.");
  setReturn("data", "The data as an HXValue");
  bindMethodOverload(createFunctor(this, static_cast<HXValue (HXMemory::*)(Text, const int&)>(&HXMemory::getData)));

  functionName("subscriber", getName(),
               "Get an object wrapping a signal bound to the given HXMemory event. Creates the event if it does not "
               "exist.");
  addParam("eventName", "Name of the HXMemory event");
  setReturn("signalWrapper", "An AnyObject with a signal named \"signal\"");
  bindMethod(this, &HXMemory::subscriber);

  functionName("getTimestamp", getName(), "Get data value and timestamp");
  addParam("key", "Name of the variable");
  setReturn("keyList", "A list of all the data key names that contain the given string.");
  bindMethod(this, &HXMemory::getDataTimestamp);

  functionName("getEventHistory", getName(), "Get data value and timestamp");
  addParam("key", "Name of the variable");
  setReturn("keyList", "A list of all the data key names that contain the given string.");
  bindMethod(this, &HXMemory::getEventHistory);

  functionName("getDataList", getName(), "Gets a list of all key names that contain a given string");
  addParam("filter", "A string used as the search term");
  setReturn("keyList", "A list of all the data key names that contain the given string.");
  bindMethod(this, &HXMemory::getDataList);

  functionName("getDataListName", getName(), "Gets the key names for all the key-value pairs in memory");
  setReturn("list", "A list containing the keys in memory");
  bindMethod(this, &HXMemory::getDataListName);

  functionName("getDataOnChange", getName(), "DEPRECATED - Blocks the caller until the value of a key changes");
  addParam("key", "Name of the data.");
  addParam("deprecatedParameter", "DEPRECATED - this parameter has no effect");
  setReturn("data", "an array containing all the retrieved data");
  bindMethod(this, &HXMemory::getDataOnChange);

  functionName(
      "getDataPtr", getName(),
      "Gets a pointer to 32 a bit data item. Beware, the pointer will only be valid during the lifetime of the "
      "HXMemory object. Use with care, at initialization, not every loop. Insert a data item if needed. Throw "
      "if the data item has not the expected type. Only meaningful when called from code running in the same "
      "process as HXMemory.",
      kSameProcessOnly);
  addParam("key", "Name of the data.");
  setReturn("ptr", "A pointer converted to int");
  bindMethod(this, &HXMemory::getPtrData);

  functionName("getIntPtr", getName(),
               "Gets a pointer to a int data item. Beware, the pointer will only be valid during the lifetime of the "
               "HXMemory object. Use with care, at initialization, not every loop. Insert a data item if needed. Throw "
               "if the data item has not the expected type. Only meaningful when called from code running in the same "
               "process as HXMemory.",
               kSameProcessOnly);
  addParam("key", "Name of the data.");
  setReturn("ptr", "A pointer to int");
  bindMethod(this, &HXMemory::getIntPtr);

  functionName("getFloatPtr", getName(),
               "Gets a pointer to a float data item. Beware, the pointer will only be valid during the lifetime of the "
               "HXMemory object. Use with care, at initialization, not every loop. Insert a data item if needed. Throw "
               "if the data item has not the expected type. Only meaningful when called from code running in the same "
               "process as HXMemory.",
               kSameProcessOnly);
  addParam("key", "Name of the data.");
  setReturn("ptr", "A pointer to float");
  bindMethod(this, &HXMemory::getFloatPtr);

  functionName("getEventList", getName(), "Gets a list containing the names of all the declared events");
  setReturn("eventNameList", "A list containing the names of all events");
  bindMethod(this, &HXMemory::getEventList);

  functionName("getExtractorEvent", getName(), "Gets the list of all events generated by a given extractor");
  addParam("extractorName", "The name of the extractor");
  setReturn("eventNameList", "A list containing the names of the events associated with the given extractor");
  bindMethod(this, &HXMemory::getExtractorEvent);

  functionName(
      "getListData", getName(),
      "Gets the values associated with the given list of keys. This is more efficient than calling getData many "
      "times, especially over the network.");
  addParam("keyList", "An array containing the key names.");
  setReturn("dataList", "An array containing all the values corresponding to the given keys.");
  bindMethod(this, &HXMemory::getListData);

  functionName("getMicroEventList", getName(), "Gets a list containing the names of all the declared micro events");
  setReturn("microEventNameList", "A list containing the names of all the microEvents");
  bindMethod(this, &HXMemory::getMicroEventList);

  functionName("getSubscribers", getName(), "Gets a list containing the names of subscribers to an event.");
  addParam("name", "Name of the event or micro-event");
  setReturn("subscriberNames", "List of subscriber names");
  bindMethod(this, &HXMemory::getDataSubscriber);

  functionName("getType", getName(), "Gets the storage class of the stored data. This is not the underlying POD type.");
  addParam("key", "Name of the variable");
  setReturn("type", "String type: Data, Event, MicroEvent");
  bindMethod(this, &HXMemory::getStrDataType);
}

void HXMemory::bindWritingMethods() {
  functionName("insertData", getName(), "Inserts a key-value pair into memory, where value is an int");
  addParam("key", "Name of the value to be inserted.");
  addParam("value", "The int to be inserted");
  bindMethodOverload(createFunctor(this, static_cast<void (HXMemory::*)(Text, const int&)>(&HXMemory::insertData)));

  functionName("insertData", getName(), "Inserts a key-value pair into memory, where value is a float");
  addParam("key", "Name of the value to be inserted.");
  addParam("value", "The float to be inserted");
  bindMethodOverload(createFunctor(this, static_cast<void (HXMemory::*)(Text, const float&)>(&HXMemory::insertData)));

  functionName("insertData", getName(), "Inserts a key-value pair into memory, where value is a string");
  addParam("key", "Name of the value to be inserted.");
  addParam("value", "The string to be inserted");
  bindMethodOverload(createFunctor(this, static_cast<void (HXMemory::*)(Text, Text)>(&HXMemory::insertData)));

  functionName("insertData", getName(), "Inserts a key-value pair into memory, where value is an HXValue");
  addParam("key", "Name of the value to be inserted.");
  addParam("data",
           "The HXValue to be inserted. This could contain a basic type, or a more complex array. See the HXValue "
           "documentation for more information.");
  bindMethodOverload(createFunctor(this, static_cast<void (HXMemory::*)(Text, const HXValue&)>(&HXMemory::insertData)));

  functionName("insertListData", getName(), "Inserts a list of key-value pairs into memory.");
  addParam("list", "An HXValue list of the form [[Key, Value],...]. Each item will be inserted.");
  bindMethod(this, &HXMemory::insertListData);

  functionName("raiseEvent", getName(), "Publishes the given data to all subscribers.");
  addParam("name", "Name of the event to raise.");
  addParam("value",
           "The data associated with the event. This could contain a basic type, or a more complex array. See the "
           "HXValue documentation for more information.");
  bindMethod(this, &HXMemory::raiseEvent);

  functionName("raiseMicroEvent", getName(), "Publishes the given data to all subscribers.");
  addParam("name", "Name of the event to raise.");
  addParam("value",
           "The data associated with the event. This could contain a basic type, or a more complex array. See the "
           "HXValue documentation for more information.");
  bindMethod(this, &HXMemory::raiseMicroEvent);

  functionName("removeData", getName(), "Removes a key-value pair from memory");
  addParam("key", "Name of the data to be removed.");
  bindMethod(this, &HXMemory::removeData);

  functionName("removeEvent", getName(), "Removes a event from memory and unsubscribes any exiting subscribers.");
  addParam("name", "Name of the event to remove.");
  bindMethod(this, &HXMemory::removeEvent);

  functionName("removeMicroEvent", getName(),
               "Removes a micro event from memory and unsubscribes any exiting subscribers.");
  addParam("name", "Name of the event to remove.");
  bindMethod(this, &HXMemory::removeMicroEvent);
}

void HXMemory::bindSubscriptionMethods() {
  functionName(
      "subscribeToEvent", getName(),
      "Subscribes to an event and automaticaly launches the module that declared itself as the generator of the "
      "event if required.");
  addParam("name", "The name of the event to subscribe to");
  addParam("callbackModule", "Name of the module to call with notifications");
  addParam("callbackMethod", "Name of the module's method to call when a data is changed");
  bindMethodOverload(
      createFunctor(this, static_cast<void (HXMemory::*)(Text, Text, Text)>(&HXMemory::subscribeToEvent)));

  functionName("subscribeToEvent", getName(),
               "DEPRECATED Subscribes to event and automaticaly launches the module capable of generating the event if "
               "it is not already running. Please use the version without the callbackMessage parameter.");
  addParam("name", "The name of the event to subscribe to");
  addParam("callbackModule", "Name of the module to call with notifications");
  addParam("callbackMessage", "DEPRECATED Message included in the notification.");
  addParam("callbacMethod", "Name of the module's method to call when a data is changed");
  bindMethodOverload(
      createFunctor(this, static_cast<void (HXMemory::*)(Text, Text, Text, Text)>(&HXMemory::subscribeToEvent)));

  functionName(
      "subscribeToMicroEvent", getName(),
      "Subscribes to a microEvent. Subscribed modules are notified on theircallback method whenever the data is "
      "updated, even if the new value is the same as the old value.");
  addParam("name", "Name of the data.");
  addParam("callbackModule", "Name of the module to call with notifications");
  addParam("callbackMessage",
           "Message included in the notification. This can be used to disambiguate multiple subscriptions.");
  addParam("callbackMethod", "Name of the module's method to call when a data is changed");
  bindMethod(this, &HXMemory::subscribeToMicroEvent);

  functionName("unregisterModuleReference", getName(), "Informs HXMemory that a module doesn't exist anymore.");
  addParam("moduleName", "Name of the departing module.");
  bindMethod(this, &HXMemory::unregisterModuleReference);

  functionName("_perf", getName(), "HXMemory performance");
  bindMethod(this, &HXMemory::perf);

  functionName("unsubscribeToEvent", getName(),
               "Unsubscribes a module from the given event. No further notifications will be received.");
  addParam("name", "The name of the event");
  addParam("callbackModule", "The name of the module that was given when subscribing.");
  bindMethod(this, &HXMemory::unsubscribeToEvent);

  functionName("unsubscribeToMicroEvent", getName(),
               "Unsubscribes from the given event. No further notifications will be received.");
  addParam("name", "Name of the event.");
  addParam("callbackModule", "The name of the module that was given when subscribing.");
  bindMethod(this, &HXMemory::unsubscribeToMicroEvent);

  functionName("_insertObject", getName(), "Insert object in HXMemory. Please use HXMemoryFastAccess");
  addParam("name", "HXMemory data name");
  addParam("buffer", "buffer in HXValue");
  addParam("bufferSize", "buffer size");
  setReturn("data", "return an array of data's string name.");
  bindMethod(this, &HXMemory::_insertObject);

  functionName("_subscribeOnDataSetTimePolicy", getName(),
               "Allows modules to change time policy of already subscribed data.");
  addParam("name", "Name of the data.");
  addParam("callbackModule", "Name of the module.");
  addParam("nTimePolicy",
           "time of new policy in ms. Default is 0: no time policy: called at every change/insert. If timepolicy > "
           "0, we will not notifiy under timepolicy even if data change under timepolicy frequency");
  bindMethod(this, &HXMemory::subscribeOnDataSetTimePolicy);

  functionName("_subscribeOnDataSetSynchronizeResponse", getName(),
               "Receives notifications in the same order that the event were sent. This is slower than");
  addParam("name", "Name of the data.");
  addParam("callbackModule", "Name of the module.");
  addParam("synchronizedResponse", "True to receive notifications in the same order as events are sent");
  bindMethod(this, &HXMemory::subscribeOnDataSetSynchronizeResponse);
}

void HXMemory::bindRemainingMethods() {
  functionName("setDescription", getName(), "Describe a key");
  addParam("name", "Name of the key.");
  addParam("description", "The description of the event (text format).");
  bindMethod(this, &HXMemory::setDescription);

  functionName("getDescriptionList", getName(), "Descriptions of all given keys");
  addParam("keylist", "List of keys. (empty to get all descriptions)");
  setReturn("descriptions", "an array of tuple (name, type, description) describing all keys.");
  bindMethod(this, &HXMemory::getDescriptionList);

  functionName("addMapping", getName(), "Add a mapping between signal and event");
  addParam("service", "Name of the service");
  addParam("signal", "Name of the signal");
  addParam("event", "Name of the event");
  bindMethodOverload(createFunctor(this, static_cast<void (HXMemory::*)(Text, Text, Text)>(&HXMemory::addMapping)));

  functionName("addMapping", getName(), "Add a mapping between signal and event");
  addParam("service", "Name of the service");
  addParam("signalEvent", "A map of signal corresponding to event");
  bindMethodOverload(createFunctor(
      this, static_cast<void (HXMemory::*)(Text, const std::map<std::string, std::string>&)>(&HXMemory::addMapping)));
}

// NOLINTEND(readability-function-size)

}  // namespace HX
