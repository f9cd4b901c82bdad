#include "remotefollow.h"

#include <hxcommon/feed.h>
#include <hxcommon/hxbroker.h>

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <utility>

namespace HX {
namespace {

using std::chrono::microseconds;

const char* const kMemory = "HXMemory";
const char* const kService = "HXJournal";

/// What somebody else says, which may be no time that fits.
journal::TimePoint timeOf(microseconds sinceEpoch) {
  constexpr auto kLatest = std::chrono::floor<microseconds>(journal::TimePoint::max().time_since_epoch());
  return journal::TimePoint(std::clamp(sinceEpoch, microseconds(0), kLatest));
}

}  // namespace

std::shared_ptr<HXProxy> requireJournalService(HXBroker& broker) {
  auto service = broker.getProxy(kService);
  if (service) return service;
  throw std::runtime_error(
      broker.getProxy(kMemory)
          ? "the broker offers no journal: it was started with --no-journal, or without its module journal"
          : "there is no memory whose changes could be followed");
}

std::shared_ptr<journal::Journal> ownJournal(const HXBroker& broker) {
  const auto owner = broker.interfaceOf<journal::JournalOwner>(kMemory);
  return owner ? owner->sharedJournal() : nullptr;
}

journal::Follow follow(const std::shared_ptr<HXBroker>& broker, journal::Filter filter,
                       std::function<void(const journal::Change&)> onChange, journal::FollowOptions options) {
  if (const auto own = ownJournal(*broker)) {
    return own->follow(std::move(filter), std::move(onChange), std::move(options));
  }
  const auto remote =
      std::make_shared<RemoteFollow>(broker, std::move(filter), std::move(onChange), std::move(options));
  remote->begin();
  return journal::Follow(remote);
}

journal::Retained retainedChanges(const std::shared_ptr<HXBroker>& broker) {
  if (const auto own = ownJournal(*broker)) return own->retained();
  const auto held = requireJournalService(*broker)->call<HXValue>("retained");
  const auto epoch = static_cast<std::uint64_t>(held["epoch"].toInt64());
  const auto placeOf = [&](const char* name) {
    return journal::Position{epoch, static_cast<std::uint64_t>(held[name].toInt64())};
  };
  journal::Retained retained{placeOf("from"), placeOf("latest"), std::nullopt, held["recording"].asBool()};
  if (const HXValue* since = held.find("since")) retained.since = timeOf(microseconds(since->toInt64()));
  return retained;
}

journal::Position changesAt(const std::shared_ptr<HXBroker>& broker, journal::TimePoint time) {
  if (const auto own = ownJournal(*broker)) return own->at(time);
  const auto since = std::chrono::floor<microseconds>(time.time_since_epoch());
  const auto place = requireJournalService(*broker)->call<HXValue>("at", since.count());
  return {static_cast<std::uint64_t>(place[0].toInt64()), static_cast<std::uint64_t>(place[1].toInt64())};
}

}  // namespace HX
