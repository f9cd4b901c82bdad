#include "droppedsubscriptions.h"
#include "logcategories.h"

#include <hxbase/detail/notifierlock.h>
#include <hxbase/hxmemory.h>
#include <hxcommon/hxbroker.h>
#include <libmw/eventloop.h>

#include <algorithm>
#include <atomic>
#include <chrono>

namespace HX {
namespace Memory {

const std::string keyAddedKey = "HXMemory/KeyAdded";
const std::string keyRemovedKey = "HXMemory/KeyRemoved";
const std::string keyTypeChanged = "HXMemory/KeyTypeChanged";

}  // namespace Memory

namespace {

constexpr std::size_t kExpectedKeys = 5000;

std::atomic_flag memoryExists = ATOMIC_FLAG_INIT;

// Known from the moment the library is loaded, so that a level set for them holds from the first record on.
[[maybe_unused]] const bool categoriesRegistered = [] {
  memoryCategory();
  itemCategory();
  return true;
}();

}  // namespace

mw::log::Category& memoryCategory() {
  static mw::log::Category& category = mw::log::addCategory("hxmemory");
  return category;
}

mw::log::Category& itemCategory() {
  static mw::log::Category& category = mw::log::addCategory("HXMemory");
  return category;
}

HXMemory::OnlyOne::OnlyOne() {
  if (memoryExists.test_and_set()) fail("HXMemory", "this process has a memory already");
}

HXMemory::OnlyOne::~OnlyOne() {
  STMValue::setBrokerInstance(nullptr);
  memoryExists.clear();
}

void HXMemory::fail(const char* method, const std::string& message, int line) {
  throw HXError("HXMemory", method, message, kSourceFile, line);
}

HXMemory::HXMemory(const std::shared_ptr<HXBroker>& broker, const std::string& name)
    : HXMemory(broker, name, JournalSettings()) {}

HXMemory::HXMemory(const std::shared_ptr<HXBroker>& broker, const std::string& name, const JournalSettings& settings)
    : HXModule(broker, name),
      journal_(std::make_shared<journal::Journal>(static_cast<journal::Source&>(*this), executorOf(settings),
                                                  settings.options)) {
  STMValue::setBrokerInstance(broker);
  DroppedSubscriptions::instance().clear();
  setAuthor({});  // Whoever writes into it is the author.
  items.reserve(kExpectedKeys);
  setModuleDescription(
      "HXMemory provides a centralized memory that can be used to store and retrieve named values. It also acts as a "
      "hub for the distribution of event notifications.");
  bindMethods();
  declareEvent(Memory::keyAddedKey);
  declareEvent(Memory::keyRemovedKey);
  declareEvent(Memory::keyTypeChanged);
  loadSignalEventMapFromFile();
  applyPendingMappings();
  // Shared ownership does not exist yet in a constructor, so the connection is tied to the lifetime token.
  serviceRegisteredLink = broker->session()->serviceRegistered.connect(
      mw::SignalSubscriber([this](mw::ServiceId, const std::string& service) {
        onServiceRegistered(service);
      }).track(lifetime_.token()));
  patrol();
}

void HXMemory::patrol() {
  constexpr int kLooks = 5;  // In the time after which a call is reported.
  mw::defaultLoop().post(
      [this, memory = lifetime_.token()] {
        const auto pass = memory.enter();
        if (!pass) return;
        NotifierLock::patrol();
        patrol();
      },
      std::max(NotifierLock::patience() / kLooks, std::chrono::milliseconds(1)));
}

HXMemory::~HXMemory() {
  lifetime_.destroy();
  if (const auto broker = findParentBroker()) broker->session()->serviceRegistered.disconnect(serviceRegisteredLink);
  journal_->close();  // Its changes refer to the names of the items.
  items.clear();
  // Items with notifications in flight are being destroyed on the event loop; what they run is in this library's hands.
  STMValue::drainRetired();
}

void HXMemory::init() { xRaiseMicroEvent("KorvoReady", HXValue(0)); }

}  // namespace HX
