#include <hxbase/hxmemory.h>
#include <hxcommon/hxbroker.h>
#include <hxcommon/hxbrokermanager.h>

extern "C" HX_API int _createModule(const std::shared_ptr<HX::HXBroker>& broker) {
  // The library's view of the process-wide manager becomes the host's.
  HX::HXBrokerManager::setInstance(broker->getBrokerManager().lock());
  HX::HXBrokerManager::getInstance()->addBroker(broker);
  HX::HXModule::createModule<HX::HXMemory>(broker, "HXMemory");
  return 0;
}

extern "C" HX_API int _closeModule() { return 0; }
