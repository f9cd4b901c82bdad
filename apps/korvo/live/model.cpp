#include "model.h"

#include "celltext.h"

#include <algorithm>
#include <compare>
#include <limits>
#include <utility>

namespace korvo {
namespace {

/// Unknown ones come last.
template <class T>
std::weak_ordering descending(const T& a, const T& b) {
  if (a < b) return std::weak_ordering::greater;
  return b < a ? std::weak_ordering::less : std::weak_ordering::equivalent;
}

}  // namespace

std::size_t RateCount::slotOf(std::int64_t second) {
  constexpr std::int64_t kSlots = kSeconds + 1;
  return static_cast<std::size_t>((second % kSlots + kSlots) % kSlots);
}

void RateCount::add(std::uint32_t changes, mw::SystemTimePoint at) {
  const std::int64_t second = secondOf(at);
  if (second <= last_ - kSeconds) return;
  for (std::int64_t begun = std::max(last_, second - kSeconds - 1); begun < second;) counts_[slotOf(++begun)] = 0;
  last_ = std::max(last_, second);
  counts_[slotOf(second)] += changes;
}

std::optional<double> RateCount::perSecond(mw::SystemTimePoint now) const {
  // As many as tell a rate to a tenth.
  constexpr std::uint64_t kEnough = 10;
  const std::int64_t current = secondOf(now);
  std::uint64_t changes = 0;
  std::int64_t seconds = 0;
  while (seconds < kSeconds && changes < kEnough && current - seconds - 1 > first_) {
    const std::int64_t second = current - ++seconds;
    if (second <= last_ && second > last_ - kSeconds) changes += counts_[slotOf(second)];
  }
  if (seconds == 0) return std::nullopt;
  return static_cast<double>(changes) / static_cast<double>(seconds);
}

void LiveModel::learn(const std::string& key, LiveFacts facts, std::uint32_t nth, bool isState,
                      mw::SystemTimePoint now) {
  const auto [found, isNew] = keys_.try_emplace(key);
  Known& known = found->second;
  known.isNamed = true;
  if (isNew) {
    widen(key);
    known.rate.begin(now);
    if (isState) known.nth = nth;
  }
  if (known.facts) facts.subscribers = known.facts->subscribers;
  if (nth != known.nth) known.isOverdue = false;
  known.facts = std::move(facts);
  count(key, nth, now);
}

void LiveModel::count(const std::string& key, std::uint32_t nth, mw::SystemTimePoint now) {
  const auto found = keys_.find(key);
  if (found == keys_.end()) return;
  const std::uint32_t before = std::exchange(found->second.nth, nth);
  // Backwards: it was removed and made again.
  const bool isAnew = nth - before > std::numeric_limits<std::uint32_t>::max() / 2;
  found->second.rate.add(isAnew ? nth : nth - before, now);
}

void LiveModel::learnSubscribers(const std::string& key, std::size_t count) {
  const auto found = keys_.find(key);
  if (found != keys_.end() && found->second.facts) found->second.facts->subscribers = count;
}

void LiveModel::setOverdue(const std::string& key, bool isOverdue) {
  const auto found = keys_.find(key);
  if (found != keys_.end()) found->second.isOverdue = isOverdue;
}

void LiveModel::beginSnapshot() {
  for (auto& [key, known] : keys_) known.isNamed = false;
}

void LiveModel::keep(const std::string& key) {
  const auto found = keys_.find(key);
  if (found != keys_.end()) found->second.isNamed = true;
}

void LiveModel::endSnapshot() {
  std::erase_if(keys_, [](const auto& entry) { return !entry.second.isNamed; });
}

void LiveModel::widen(const std::string& key) {
  if (passes(key)) keyColumns_ = std::max(keyColumns_, columnsOf(key));
}

void LiveModel::setFilter(std::string filter) {
  filter_ = std::move(filter);
  first_ = chosen_ = 0;
  keyColumns_ = 0;
  for (const auto& [key, known] : keys_) widen(key);
}

void LiveModel::sortBy(LiveColumn column) {
  reversed_ = column == column_ && !reversed_;
  column_ = column;
  first_ = chosen_ = 0;
}

void LiveModel::move(std::ptrdiff_t rows) {
  const auto up = static_cast<std::size_t>(-std::min<std::ptrdiff_t>(rows, 0));
  chosen_ = rows < 0 ? chosen_ - std::min(chosen_, up) : chosen_ + static_cast<std::size_t>(rows);
}

std::size_t LiveModel::shownCount() const {
  if (filter_.empty()) return keys_.size();
  return static_cast<std::size_t>(std::ranges::count_if(keys_, [&](const auto& one) { return passes(one.first); }));
}

std::vector<LiveModel::Entry> LiveModel::shown() const {
  std::vector<Entry> entries;
  entries.reserve(keys_.size());
  for (auto entry = keys_.begin(); entry != keys_.end(); ++entry) {
    if (passes(entry->first)) entries.push_back(entry);
  }
  return entries;
}

bool LiveModel::isBefore(const Entry& a, const Entry& b, mw::SystemTimePoint now) const {
  const auto& one = a->second;
  const auto& other = b->second;
  std::weak_ordering order = std::weak_ordering::equivalent;
  if (column_ != LiveColumn::Key) order = descending(one.facts.has_value(), other.facts.has_value());
  const bool isKnown = one.facts && other.facts;
  if (column_ == LiveColumn::Value && isKnown) order = one.facts->value <=> other.facts->value;
  if (column_ == LiveColumn::Age && isKnown) order = descending(one.facts->time, other.facts->time);
  if (column_ == LiveColumn::Rate) order = descending(one.rate.perSecond(now), other.rate.perSecond(now));
  if (column_ == LiveColumn::Subscribers && isKnown) {
    order = descending(one.facts->subscribers, other.facts->subscribers);
  }
  if (order == 0) order = a->first <=> b->first;
  return reversed_ ? order > 0 : order < 0;
}

std::vector<LiveRow> LiveModel::page(std::size_t rows, mw::SystemTimePoint now) {
  std::vector<Entry> entries = shown();
  chosen_ = std::min(chosen_, entries.empty() ? 0 : entries.size() - 1);
  if (chosen_ >= first_ + rows) first_ = chosen_ + 1 - rows;
  first_ = std::min({first_, chosen_, entries.size() > rows ? entries.size() - rows : 0});
  const std::size_t last = std::min(first_ + rows, entries.size());
  const auto at = [&](std::size_t index) { return entries.begin() + static_cast<std::ptrdiff_t>(index); };
  // The keys are in their own order already.
  if (column_ != LiveColumn::Key || reversed_) {
    std::partial_sort(at(0), at(last), entries.end(),
                      [&](const Entry& a, const Entry& b) { return isBefore(a, b, now); });
  }
  std::vector<LiveRow> page;
  page.reserve(last - first_);
  for (std::size_t i = first_; i < last; ++i) {
    const auto& [key, known] = *entries[i];
    page.push_back({key, known.facts, known.rate.perSecond(now), known.isOverdue, i == chosen_});
  }
  return page;
}

}  // namespace korvo
