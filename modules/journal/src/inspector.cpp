#include "inspector.h"

#include "inspection.h"

#include <hxcommon/feed.h>
#include <libmw/clock.h>
#include <libmw/whereabouts.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>

namespace HX {

using namespace inspection;
using namespace std::chrono_literals;

namespace inspection {

HXValue toValue(const MemoryInsight::Subscriber& subscriber) {
  HXValue::Map map{{"module", subscriber.module},
                   {"method", subscriber.method},
                   {"since", timeOf(subscriber.since)},
                   {"there", subscriber.isThere},
                   {"process", subscriber.process}};
  if (subscriber.lastCall) map.emplace("lastCall", secondsOf(*subscriber.lastCall));
  return HXValue::map(std::move(map));
}

HXValue toValue(const MemoryInsight::Wait& wait) {
  return HXValue::map(
      {{"event", wait.event}, {"who", wait.who}, {"forWhom", wait.forWhom}, {"lasts", secondsOf(wait.lasts)}});
}

std::string times(std::uint64_t count) { return count == 1 ? "once" : fmt::format("{} times", count); }

std::string span(std::chrono::nanoseconds duration) {
  const double seconds = secondsOf(duration).toDouble();
  if (duration < 2min) return fmt::format("{:.3g} s", seconds);
  if (duration < 2h) return fmt::format("{:.3g} min", seconds / 60);
  return fmt::format("{:.1f} h", seconds / 3600);
}

}  // namespace inspection

namespace {

std::string_view textOf(journal::What what) {
  static constexpr std::array<std::string_view, journal::kWhats> kTexts{
      "stored", "raised", "raised as micro-event", "declared", "described", "removed"};
  return kTexts[static_cast<std::size_t>(what)];
}

std::string_view typeOf(const HXValue& value) {
  static constexpr std::array<std::string_view, 10> kTexts{"not set", "bool",   "int",    "64-bit int", "float",
                                                           "double",  "string", "binary", "list",       "map"};
  return kTexts[static_cast<std::size_t>(value.getType())];
}

/// Changes a second over the span, or over as much of it as is retained.
HXValue rateOf(std::uint64_t changes, std::chrono::nanoseconds wanted, std::chrono::nanoseconds reach) {
  const std::chrono::duration<double> over = std::min(wanted, std::max<std::chrono::nanoseconds>(reach, 1s));
  return static_cast<double>(changes) / over.count();
}

/// "A and B", "A; B; C and 4 more": a process is named with a comma.
std::string joined(const std::set<std::string>& authors) {
  constexpr std::size_t kMost = 4;
  const std::size_t named = authors.size() > kMost ? kMost - 1 : authors.size() - 1;
  std::string text;
  auto author = authors.begin();
  for (std::size_t i = 0; i < named; ++i, ++author) {
    text += (i > 0 ? "; " : "") + (author->empty() ? "the broker's process" : *author);
  }
  const bool isLast = std::next(author) == authors.end();
  return fmt::format("{} and {}", text, isLast ? *author : fmt::format("{} more", authors.size() - named));
}

template <class T>
std::shared_ptr<T> required(std::shared_ptr<T> found) {
  if (!found) throw std::runtime_error("HXJournal is not in the process of the memory");
  return found;
}

}  // namespace

Inspector::Inspector(std::shared_ptr<HXBroker> broker, HXMemoryProxy memory)
    : broker_(std::move(broker)),
      memory_(std::move(memory)),
      journal_(required(ownJournal(*broker_))),
      insight_(required(broker_->interfaceOf<MemoryInsight>("HXMemory"))),
      now_(mw::systemNow()) {}

bool Inspector::isThere(const std::string& service) const {
  return static_cast<bool>(broker_->session()->ownService(service));
}

// --- explain
// ----------------------------------------------------------------------------------------------------------

HXValue Inspector::explain(const std::string& key) {
  Map told{{"key", key}};
  addState(told, key);
  addChanges(told, key);
  addExpected(told, key);
  List subscribers;
  for (const auto& one : insight_->subscribersOf(key)) subscribers.push_back(toValue(one));
  List calls;
  for (const auto& one : insight_->calls()) {
    if (one.event == key)
      calls.push_back(HXValue::map({{"subscriber", one.subscriber}, {"lasts", secondsOf(one.lasts)}}));
  }
  List waits;
  for (const auto& one : insight_->waits()) {
    if (one.event == key) waits.push_back(toValue(one));
  }
  told.emplace("subscribers", HXValue::list(std::move(subscribers)));
  told.emplace("calls", HXValue::list(std::move(calls)));
  told.emplace("waits", HXValue::list(std::move(waits)));
  told.emplace("extractor", extractorOf(key));
  told.emplace("mapped", HXValue::list(mappedTo(key)));
  return HXValue::map(std::move(told));
}

HXValue Inspector::missed(const std::string& event, const std::string& module) const {
  if (std::ranges::count(insight_->subscribersOf(event), module, &MemoryInsight::Subscriber::module) > 0) return 0;
  const auto dropped = insight_->dropped();
  const auto isIt = [&](const MemoryInsight::Dropped& one) { return one.event == event && one.module == module; };
  const auto last = std::find_if(dropped.rbegin(), dropped.rend(), isIt);
  const auto retained = journal_->retained();
  if (last == dropped.rend() || !retained.isRecording || !retained.since || *retained.since > last->when) return {};
  std::int64_t count = 1;  // That at which the subscription ended.
  journal_->scan(journal::Filter().addKey(event), [&](const journal::Change& change) {
    const bool isRaise = change.what == journal::What::Raised || change.what == journal::What::RaisedMicro;
    if (isRaise && change.time > last->when) ++count;
  });
  return count;
}

void Inspector::addState(Map& told, const std::string& key) {
  const HXValue stamped = memory_.getTimestamp(key);
  told.emplace("value", stamped[0]);
  told.emplace("type", std::string(typeOf(stamped[0])));
  const std::int64_t microseconds = stamped[1].toInt64() * 1'000'000 + stamped[2].toInt64();
  told.emplace("written", microseconds == 0 ? HXValue() : HXValue(microseconds));
  told.emplace("kind", memory_.getType(key));
  const HXValue described = memory_.getDescriptionList({key});
  told.emplace("description", described.asList().back()[2]);
}

void Inspector::addChanges(Map& told, const std::string& key) const {
  const Tally tally(*journal_, journal::Filter().addKey(key), now_);
  if (!tally.isRecording()) {
    for (const char* name : {"last", "rate", "changes"}) told.emplace(name, kUnknown);
    told.emplace("odd", HXValue::list(oddities(key, tally)));
    return;
  }
  const Tally::OfKey* const known = tally.find(key);
  told.emplace("reach", secondsOf(tally.reach()));
  told.emplace("changes", countOf(known ? known->changes : 0));
  told.emplace("rate", HXValue::map({{"second", rateOf(known ? known->inSecond : 0, 1s, tally.reach())},
                                     {"minute", rateOf(known ? known->inMinute : 0, 1min, tally.reach())}}));
  told.emplace("last", known ? HXValue::map({{"time", timeOf(known->last.time)},
                                             {"revision", countOf(known->last.at.revision)},
                                             {"epoch", countOf(known->last.at.epoch)},
                                             {"what", std::string(textOf(known->last.what))},
                                             {"author", known->last.author}})
                             : HXValue("unknown: no change of it is retained"));
  told.emplace("odd", HXValue::list(oddities(key, tally)));
}

Inspector::List Inspector::oddities(const std::string& key, const Tally& tally) const {
  List odd;
  if (const Tally::OfKey* const known = tally.find(key)) {
    const auto over = span(tally.reach());
    const std::size_t authors = known->authors.size();
    if (known->retyped > 0) {
      odd.emplace_back(fmt::format("retyped {} in {} by {} author{}", times(known->retyped), over, authors,
                                   authors == 1 ? "" : "s"));
    }
    if (authors > 1) odd.emplace_back("written by " + joined(known->authors));
    if (known->removed > 0) odd.emplace_back(fmt::format("removed {} in {}", times(known->removed), over));
  }
  for (const auto& one : insight_->subscribersOf(key)) {
    if (!one.isThere) odd.emplace_back(one.module + " is subscribed and not there");
  }
  for (const auto& one : insight_->mappings()) {
    if (one.event == key && !isThere(one.service))
      odd.emplace_back(one.service + ", whose signal is mapped to it, is not there");
  }
  return odd;
}

Inspector::List Inspector::mappedTo(const std::string& key) const {
  List mapped;
  for (const auto& one : insight_->mappings()) {
    if (one.event != key) continue;
    mapped.push_back(HXValue::map({{"service", one.service}, {"signal", one.signal}, {"there", isThere(one.service)}}));
  }
  return mapped;
}

HXValue Inspector::extractorOf(const std::string& key) {
  const std::string name = insight_->extractorNameOf(key);
  if (name.empty()) return {};
  for (const Production& production : productions(name)) {
    if (production.event == key) return valueOf(production);
  }
  return {};
}

// --- demand
// -----------------------------------------------------------------------------------------------------------

HXValue Inspector::demand(const std::string& extractor) {
  List all;
  for (const Production& production : productions(extractor)) all.push_back(valueOf(production));
  if (all.empty() && !extractor.empty()) {
    throw std::runtime_error(fmt::format("no event has {} for its extractor", extractor));
  }
  return HXValue::list(std::move(all));
}

std::vector<Production> Inspector::productions(const std::string& extractor) {
  std::vector<Production> all;
  const auto demands = insight_->demands();
  for (const auto& [event, name] : insight_->extractedEvents()) {
    if (!extractor.empty() && name != extractor) continue;
    Production& made = all.emplace_back();
    const mw::AnyObject service = broker_->session()->ownService(name);
    made.extractor = name;
    made.event = event;
    made.isThere = static_cast<bool>(service);
    made.isTold = service && !service->metaObject().findMethods("getCurrentPrecision").empty();
    made.process = mw::processOf(service);
    for (const auto& one : demands) {
      if (one.event != event || one.extractor != name) continue;
      made.forWhom.push_back({one.subscriber, one.since, one.failure.empty(), one.isSubscribed, one.failure});
    }
    for (const auto& one : insight_->subscribersOf(event)) {
      const auto isKnown = std::ranges::find(made.forWhom, one.module, &Production::ForWhom::module);
      if (isKnown == made.forWhom.end()) made.forWhom.push_back({one.module, one.since, false, true, {}});
    }
  }
  return all;
}

HXValue Inspector::valueOf(const Production& production) const {
  List forWhom;
  for (const auto& one : production.forWhom) {
    Map map{
        {"module", one.module}, {"since", timeOf(one.since)}, {"asked", one.isAsked}, {"subscribed", one.isSubscribed}};
    if (!one.failure.empty()) map.emplace("failure", one.failure);
    forWhom.push_back(HXValue::map(std::move(map)));
  }
  Map map{{"extractor", production.extractor}, {"event", production.event},
          {"there", production.isThere},       {"told", production.isTold},
          {"process", production.process},     {"for", HXValue::list(std::move(forWhom))}};
  if (production.runsForNobody()) map.emplace("forNobody", true);
  if (const std::string why = production.failure(); !why.empty()) map.emplace("failure", why);
  return HXValue::map(std::move(map));
}

}  // namespace HX
