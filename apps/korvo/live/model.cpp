#include "model.h"

#include "celltext.h"

#include <algorithm>
#include <compare>
#include <utility>

namespace korvo {
namespace {

constexpr std::size_t kLooks = 10;

double seconds(mw::SystemTimePoint::duration duration) { return std::chrono::duration<double>(duration).count(); }

/// Unknown ones come last.
template <class T>
std::weak_ordering descending(const T& a, const T& b) {
  if (a < b) return std::weak_ordering::greater;
  return b < a ? std::weak_ordering::less : std::weak_ordering::equivalent;
}

}  // namespace

void RateEstimate::see(mw::SystemTimePoint changed, mw::SystemTimePoint now) {
  looks_.push_back({changed, now});
  if (looks_.size() > kLooks) looks_.pop_front();
}

std::optional<double> RateEstimate::perSecond() const {
  if (looks_.size() < 2) return std::nullopt;
  const double span = seconds(looks_.back().now - looks_.front().now);
  if (span <= 0) return std::nullopt;
  std::size_t changes = 0;
  double ages = 0;
  for (std::size_t i = 0; i < looks_.size(); ++i) {
    if (i > 0 && looks_[i].changed != looks_[i - 1].changed) ++changes;
    ages += std::max(0.0, seconds(looks_[i].now - looks_[i].changed));
  }
  const double counted = static_cast<double>(changes) / span;
  if (changes + 1 < looks_.size() || ages <= 0) return counted;
  return std::max(counted, static_cast<double>(looks_.size()) / (2 * ages));
}

void LiveModel::setKeys(std::vector<std::string> keys) {
  std::ranges::sort(keys);
  std::erase_if(keys_, [&](const auto& entry) { return !std::ranges::binary_search(keys, entry.first); });
  for (std::string& key : keys) add(key);
}

void LiveModel::add(const std::string& key) {
  if (keys_.try_emplace(key).second) widen(key);
}

void LiveModel::widen(const std::string& key) {
  if (passes(key)) keyColumns_ = std::max(keyColumns_, columnsOf(key));
}

void LiveModel::learn(const std::string& key, LiveFacts facts, mw::SystemTimePoint now) {
  const auto found = keys_.find(key);
  if (found == keys_.end()) return;
  found->second.rate.see(facts.time, now);
  found->second.facts = std::move(facts);
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

bool LiveModel::isBefore(const Entry& a, const Entry& b) const {
  const auto& one = a->second;
  const auto& other = b->second;
  std::weak_ordering order = std::weak_ordering::equivalent;
  if (column_ != LiveColumn::Key) order = descending(one.facts.has_value(), other.facts.has_value());
  const bool isKnown = one.facts && other.facts;
  if (column_ == LiveColumn::Value && isKnown) order = one.facts->value <=> other.facts->value;
  if (column_ == LiveColumn::Age && isKnown) order = descending(one.facts->time, other.facts->time);
  if (column_ == LiveColumn::Rate) order = descending(one.rate.perSecond(), other.rate.perSecond());
  if (column_ == LiveColumn::Subscribers && isKnown) {
    order = descending(one.facts->subscribers, other.facts->subscribers);
  }
  if (order == 0) order = a->first <=> b->first;
  return reversed_ ? order > 0 : order < 0;
}

std::vector<LiveRow> LiveModel::page(std::size_t rows) {
  std::vector<Entry> entries = shown();
  chosen_ = std::min(chosen_, entries.empty() ? 0 : entries.size() - 1);
  if (chosen_ >= first_ + rows) first_ = chosen_ + 1 - rows;
  first_ = std::min({first_, chosen_, entries.size() > rows ? entries.size() - rows : 0});
  const std::size_t last = std::min(first_ + rows, entries.size());
  const auto at = [&](std::size_t index) { return entries.begin() + static_cast<std::ptrdiff_t>(index); };
  // The keys are in their own order already.
  if (column_ != LiveColumn::Key || reversed_) {
    std::partial_sort(at(0), at(last), entries.end(), [&](const Entry& a, const Entry& b) { return isBefore(a, b); });
  }
  std::vector<LiveRow> page;
  for (std::size_t i = first_; i < last; ++i) {
    page.push_back({entries[i]->first, entries[i]->second.facts, entries[i]->second.rate.perSecond(), i == chosen_});
  }
  return page;
}

std::vector<std::string> LiveModel::nextInTurn(std::size_t count) {
  std::vector<std::string> keys;
  auto entry = keys_.upper_bound(turn_);
  for (std::size_t i = 0; i < keys_.size() && keys.size() < count; ++i) {
    if (entry == keys_.end()) entry = keys_.begin();
    if (passes(entry->first)) keys.push_back(entry->first);
    ++entry;
  }
  if (!keys.empty()) turn_ = keys.back();
  return keys;
}

}  // namespace korvo
