#include "inspection.h"
#include "inspector.h"

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace HX {

using namespace inspection;

namespace {

void add(MemoryInsight::CallTimes& sum, const MemoryInsight::CallTimes& times) {
  for (std::size_t i = 0; i < sum.counts.size(); ++i) sum.counts[i] += times.counts[i];
  sum.nanoseconds += times.nanoseconds;
}

}  // namespace

HXValue Inspector::figures() const {
  std::map<std::string, MemoryInsight::CallTimes> bySubscriber;
  std::int64_t subscriptions = 0;
  std::int64_t slow = 0;
  insight_->forEachSubscribed([&](const std::string& /*key*/, const auto& subscribers) {
    for (const MemoryInsight::Subscriber& one : subscribers) {
      ++subscriptions;
      if (one.lastCall && *one.lastCall >= kSlow) ++slow;
      add(bySubscriber[one.module], one.calls);
    }
  });
  List bounds;
  for (const auto bound : MemoryInsight::CallTimes::kBounds) bounds.push_back(secondsOf(bound));
  List calls;
  for (const auto& [module, times] : bySubscriber) {
    List counts;
    for (const std::uint64_t count : times.counts) counts.push_back(countOf(count));
    const std::chrono::nanoseconds sum(times.nanoseconds);
    calls.push_back(HXValue::list({module, HXValue::list(std::move(counts)), secondsOf(sum)}));
  }
  Map told{{"subscriptions", subscriptions},
           {"slow", slow},
           {"bounds", HXValue::list(std::move(bounds))},
           {"calls", HXValue::list(std::move(calls))}};
  List mappings;
  for (const MemoryInsight::Mapping& one : insight_->mappings()) {
    mappings.push_back(HXValue::list({one.service, one.signal, one.event}));
  }
  told.emplace("mappings", HXValue::list(std::move(mappings)));
  List wrong;  // Sentences are the report's.
  addDropped(told, wrong);
  addFollowers(told, wrong);
  return HXValue::map(std::move(told));
}

HXValue Inspector::subscribers(const std::vector<std::string>& keys) const {
  Map told;
  for (const std::string& key : keys) {
    List list;
    for (const MemoryInsight::Subscriber& one : insight_->subscribersOf(key)) list.push_back(toValue(one));
    told.insert_or_assign(key, HXValue::list(std::move(list)));
  }
  return HXValue::map(std::move(told));
}

}  // namespace HX
