#include "hxjournal.h"

#include "feed.h"

#include <hxcommon/feed.h>
#include <hxcommon/hxbroker.h>

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>

namespace HX {
namespace {

using std::chrono::microseconds;

HXValue numberOf(std::uint64_t number) { return static_cast<std::int64_t>(number); }

}  // namespace

HXJournal::HXJournal(const std::shared_ptr<HXBroker>& broker, const std::string& name) : HXModule(broker, name) {
  setModuleDescription(
      "HXJournal tells of every change of the memory, in order, to processes other than the memory's.");
  bindFeed();
  bindQuestions();
}

void HXJournal::bindFeed() {
  Feed::describe();
  functionName("open", getName(), "Follows the changes of the memory: all of them, or those that the options name.");
  addParam("options",
           "a map, empty for all: keys, prefixes, globs, patterns, exclude, authors (lists of texts), whats, kinds "
           "(lists of numbers), snapshot, relaxed (bools), rate, behind (numbers), since ([epoch, revision])");
  setReturn("feed",
            "an object with the signal batch and the methods start, took, stop; the page on the protocol says what "
            "is in a batch");
  bindMethod(this, &HXJournal::open);

  functionName("retained", getName(), "Says what one can go back to.");
  setReturn("retained",
            "{epoch, from: the place after which changes are retained, latest, recording, since: the time of the first "
            "retained change in microseconds since 1970, where there is one}");
  bindMethod(this, &HXJournal::retained);

  functionName("at", getName(), "Finds the place from which on to follow for the changes from a time on.");
  addParam("time", "in microseconds since 1970");
  setReturn("place", "[epoch, revision]; of the oldest retained change when the time is older");
  bindMethod(this, &HXJournal::at);
}

std::shared_ptr<journal::Journal> HXJournal::requireJournal() const {
  auto found = ownJournal(*getParentBroker());
  if (!found) throw std::runtime_error("HXJournal is not in the process of the memory");
  return found;
}

std::shared_ptr<Feed> HXJournal::open(const HXValue& options) {
  constexpr std::size_t kMostFeeds = 1024;
  auto feed = std::make_shared<Feed>(requireJournal(), journal::requestOf(options));
  const std::lock_guard lock(mutex_);
  std::erase_if(feeds_, [](const auto& one) { return one.expired(); });
  if (feeds_.size() >= kMostFeeds) throw std::runtime_error(fmt::format("{} feeds are open already", kMostFeeds));
  feeds_.push_back(feed);
  return feed;
}

void HXJournal::exit() {
  std::vector<std::weak_ptr<Feed>> feeds;
  {
    const std::lock_guard lock(mutex_);
    feeds.swap(feeds_);
  }
  for (const auto& one : feeds) {
    if (const auto feed = one.lock()) feed->stop();
  }
  HXModule::exit();
}

HXValue HXJournal::retained() {
  const journal::Retained held = requireJournal()->retained();
  HXValue::Map map{{"epoch", numberOf(held.latest.epoch)},
                   {"from", numberOf(held.from.revision)},
                   {"latest", numberOf(held.latest.revision)},
                   {"recording", held.isRecording}};
  if (held.since) {
    map.emplace("since", std::chrono::floor<microseconds>(held.since->time_since_epoch()).count());
  }
  return HXValue::map(std::move(map));
}

HXValue HXJournal::at(std::int64_t time) {
  // Far-off times would overflow in nanoseconds.
  constexpr auto kLatest = std::chrono::floor<microseconds>(journal::TimePoint::max().time_since_epoch()).count();
  const microseconds since(std::clamp<std::int64_t>(time, 0, kLatest));
  const journal::Position place = requireJournal()->at(journal::TimePoint(since));
  return HXValue::list({numberOf(place.epoch), numberOf(place.revision)});
}

}  // namespace HX
