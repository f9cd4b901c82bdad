#include <hxcommon/feed.h>
#include <hxcommon/hxbroker.h>

#include <stdexcept>
#include <utility>

namespace HX {
namespace {

const char* const kMemory = "HXMemory";

std::shared_ptr<journal::Journal> requireJournal(const HXBroker& broker) {
  auto own = ownJournal(broker);
  if (!own) throw std::runtime_error("there is no memory whose changes could be followed");
  return own;
}

}  // namespace

std::shared_ptr<journal::Journal> ownJournal(const HXBroker& broker) {
  const auto owner = broker.interfaceOf<journal::JournalOwner>(kMemory);
  return owner ? owner->sharedJournal() : nullptr;
}

journal::Follow follow(const std::shared_ptr<HXBroker>& broker, journal::Filter filter,
                       std::function<void(const journal::Change&)> onChange, journal::FollowOptions options) {
  return requireJournal(*broker)->follow(std::move(filter), std::move(onChange), std::move(options));
}

journal::Retained retainedChanges(const std::shared_ptr<HXBroker>& broker) {
  return requireJournal(*broker)->retained();
}

journal::Position changesAt(const std::shared_ptr<HXBroker>& broker, journal::TimePoint time) {
  return requireJournal(*broker)->at(time);
}

}  // namespace HX
