#include "logcategories.h"

#include <hxbase/hxmemory.h>
#include <libmw/detail/racepoint.h>

#include <stdexcept>

namespace HX {

void* HXMemory::pointerTo(const std::string& key, const char* method, const HXValue& defaultValue) {
  try {
    while (true) {
      const auto item = xRequireSTMValue(key, STMValue::Data, defaultValue);
      if (!defaultValue.isValid() && !item->getValue().isValid()) {
        HX_LOG_AS(Warning, memoryCategory(), "getPtrData", "getPtrValue on stmvalue with no type: " + key);
      }
      HX_RACE_POINT("an item is about to be marked as one whose address is known");
      // The item is marked before the address is asked for, and stays marked when there is none to be had: callers have
      // come to rely on it.
      void* const address = item->accessPointer(defaultValue.getType());
      // A removal that came between the look-up and the mark would take the address with it.
      if (xGetSTMValue(key) == item) return address;
    }
  } catch (const std::exception& error) {
    fail(method, "error getting pointer to \"" + key + "\": " + error.what());
  }
}

void* HXMemory::getPtrData(const std::string& key) { return pointerTo(key, "getPtrData", HXValue()); }

int* HXMemory::getIntPtr(const std::string& key) { return static_cast<int*>(pointerTo(key, "getIntPtr", HXValue(0))); }

float* HXMemory::getFloatPtr(const std::string& key) {
  return static_cast<float*>(pointerTo(key, "getFloatPtr", HXValue(0.0F)));
}

void HXMemory::_insertObject(const std::string& name, const HXValue& buffer, const int& /*bufferSize*/) {
  xInsertData(name, buffer, STMValue::Data);
}

}  // namespace HX
