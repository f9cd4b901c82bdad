#include "inspection.h"
#include "inspector.h"

#include <hxcommon/hxproxy.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <tuple>
#include <unistd.h>
#include <utility>

#include <fmt/format.h>

namespace HX {

using namespace inspection;
using namespace std::chrono_literals;

namespace {

constexpr std::size_t kSlowestTold = 10;
constexpr auto kLongWait = 1s;
/// What ended earlier is told, and not wrong any more.
constexpr auto kRecent = 10min;
constexpr std::size_t kAuthorsTold = 50;

/// What the process holds, in bytes; 0 where it cannot be told.
std::int64_t residentBytes() {
  std::ifstream file("/proc/self/statm");
  std::int64_t pages = 0;
  file >> pages >> pages;
  return file ? pages * ::sysconf(_SC_PAGESIZE) : 0;
}

}  // namespace

HXValue Inspector::report() {
  Map told{{"broker", broker_->getName()},
           {"process", static_cast<std::int64_t>(::getpid())},
           {"keys", countOf(memory_.getDataListName().size())},
           {"residentBytes", residentBytes()}};
  List wrong;
  addChanges(told);
  addSubscribers(told, wrong);
  addWaits(told, wrong);
  addDropped(told, wrong);
  addFollowers(told, wrong);
  addProductions(told, wrong);
  addOverdue(told, wrong);
  addKept(told, wrong);
  told.emplace("wrong", HXValue::list(std::move(wrong)));
  return HXValue::map(std::move(told));
}

/// How many there are, and which keys are written by several.
void Inspector::addChanges(Map& told) const {
  const Tally tally(*journal_, journal::Filter().exclude("HXMemory/"), now_);
  told.emplace("recording", tally.isRecording());
  if (!tally.isRecording()) {
    told.emplace("changesPerSecond", kUnknown);
    told.emplace("severalAuthors", kUnknown);
    return;
  }
  const double reach = std::chrono::duration<double>(tally.reach()).count();
  told.emplace("reach", reach);
  told.emplace("changesPerSecond", static_cast<double>(tally.inSecond()) / std::clamp(reach, 0.001, 1.0));
  List several;
  for (const auto& [key, of] : tally.keys()) {
    if (of.authors.size() < 2 || several.size() == kAuthorsTold) continue;
    List authors;
    for (const std::string& author : of.authors) authors.emplace_back(author);
    several.push_back(
        HXValue::map({{"key", key}, {"authors", HXValue::list(std::move(authors))}, {"retyped", countOf(of.retyped)}}));
  }
  told.emplace("severalAuthors", HXValue::list(std::move(several)));
}

void Inspector::addSubscribers(Map& told, List& wrong) const {
  using One = std::pair<std::string, MemoryInsight::Subscriber>;
  std::vector<One> slowest;
  std::int64_t all = 0;
  const auto isSlower = [](const One& a, const One& b) { return a.second.lastCall > b.second.lastCall; };
  insight_->forEachSubscribed([&](const std::string& key, const auto& subscribers) {
    for (const auto& one : subscribers) {
      ++all;
      if (!one.lastCall) continue;
      slowest.emplace_back(key, one);
      if (slowest.size() < 2 * kSlowestTold) continue;
      std::ranges::sort(slowest, isSlower);
      slowest.resize(kSlowestTold);
    }
  });
  std::ranges::sort(slowest, isSlower);
  if (slowest.size() > kSlowestTold) slowest.resize(kSlowestTold);
  List list;
  for (const auto& [key, one] : slowest) {
    Map map = toValue(one).asMap();
    map.emplace("key", key);
    list.push_back(HXValue::map(std::move(map)));
    if (*one.lastCall < kSlow) continue;
    wrong.emplace_back(fmt::format("{} took {:.1f} s for {}: who raises it waits", one.module,
                                   std::chrono::duration<double>(*one.lastCall).count(), key));
  }
  told.emplace("subscriptions", all);
  told.emplace("slowest", HXValue::list(std::move(list)));
}

void Inspector::addWaits(Map& told, List& wrong) const {
  List calls;
  for (const auto& one : insight_->calls()) {
    calls.push_back(
        HXValue::map({{"event", one.event}, {"subscriber", one.subscriber}, {"lasts", secondsOf(one.lasts)}}));
    if (one.lasts >= kLongWait) {
      wrong.emplace_back(
          fmt::format("{} is still being called for {}, for {}", one.subscriber, one.event, span(one.lasts)));
    }
  }
  List waits;
  for (const auto& one : insight_->waits()) {
    waits.push_back(toValue(one));
    if (one.lasts < kLongWait) continue;
    wrong.emplace_back(fmt::format("{} waits for {} until it can raise {}, for {}",
                                   one.who.empty() ? "a thread" : one.who,
                                   one.forWhom.empty() ? "somebody" : one.forWhom, one.event, span(one.lasts)));
  }
  told.emplace("calls", HXValue::list(std::move(calls)));
  told.emplace("waits", HXValue::list(std::move(waits)));
}

/// One whose module has gone ends as it should; one whose module is there has failed.
void Inspector::addDropped(Map& told, List& wrong) const {
  List list;
  for (const auto& one : insight_->dropped()) {
    list.push_back(
        HXValue::map({{"event", one.event}, {"module", one.module}, {"why", one.why}, {"time", timeOf(one.when)}}));
    if (now_ - one.when > kRecent || !isThere(one.module)) continue;
    wrong.emplace_back(fmt::format("the subscription of {} to {} has ended: {}", one.module, one.event, one.why));
  }
  told.emplace("dropped", HXValue::list(std::move(list)));
}

void Inspector::addFollowers(Map& told, List& wrong) const {
  List list;
  for (const auto& one : journal_->followers()) {
    list.push_back(HXValue::map(
        {{"who", one.who}, {"behind", countOf(one.behind)}, {"gaps", countOf(one.gaps)}, {"paused", one.isPaused}}));
    if (one.gaps == 0) continue;
    wrong.emplace_back(fmt::format("{} follows too slowly: it has missed changes {}",
                                   one.who.empty() ? "a follower" : one.who, times(one.gaps)));
  }
  told.emplace("followers", HXValue::list(std::move(list)));
}

void Inspector::addProductions(Map& told, List& wrong) {
  List list;
  for (const Production& one : productions({})) {
    if (one.runsForNobody()) wrong.emplace_back(fmt::format("{} produces {} for nobody", one.extractor, one.event));
    if (const std::string why = one.failure(); !why.empty()) {
      wrong.emplace_back(fmt::format("{} does not produce {} although asked: {}", one.extractor, one.event, why));
    }
    list.push_back(valueOf(one));
  }
  told.emplace("extractors", HXValue::list(std::move(list)));
}

/// How often it is to be written, where the module is loaded that watches over it.
void Inspector::addExpected(Map& told, const std::string& key) const {
  if (!isThere("HXFreshness")) return;
  try {
    const auto expectations = broker_->getProxy("HXFreshness")->call<HXValue>("expectations");
    for (const HXValue& one : expectations.asList()) {
      if (one[0].asString() == key) told.emplace("expected", HXValue::map({{"limit", one[2]}, {"overdue", one[3]}}));
    }
  } catch (const std::exception& error) {
    told.emplace("expected", fmt::format("unknown, since HXFreshness cannot say: {}", error.what()));
  }
}

/// Where the module is loaded that watches over it.
void Inspector::addOverdue(Map& told, List& wrong) const {
  if (!isThere("HXFreshness")) return;
  try {
    const auto overdue = broker_->getProxy("HXFreshness")->call<HXValue>("overdue");
    const auto spanOf = [](const HXValue& seconds) {
      return span(
          std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(seconds.toDouble())));
    };
    for (const HXValue& one : overdue.asList()) {
      wrong.emplace_back(fmt::format("{} is overdue: not written for {}, expected every {}", one[0].asString(),
                                     spanOf(one[1]), spanOf(one[2])));
    }
    told.emplace("overdue", overdue);
  } catch (const std::exception& error) {
    wrong.emplace_back(fmt::format("HXFreshness cannot say what is overdue: {}", error.what()));
  }
}

/// Where keys are kept on a disk.
void Inspector::addKept(Map& told, List& wrong) const {
  if (!isThere("HXKeeper")) return;
  try {
    const auto state = broker_->getProxy("HXKeeper")->call<HXValue>("state");
    if (const std::string& failure = state["failure"].asString(); !failure.empty()) {
      wrong.emplace_back(fmt::format("{} keys are not on the disk: {}", state["unwritten"].toInt64(), failure));
    }
    for (const HXValue& complaint : state["complaints"].asList()) wrong.push_back(complaint);
    told.emplace("kept", state);
  } catch (const std::exception& error) {
    wrong.emplace_back(fmt::format("HXKeeper cannot say what it keeps: {}", error.what()));
  }
}

}  // namespace HX
