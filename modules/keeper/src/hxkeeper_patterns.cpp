#include "hxkeeper.h"

#include <hxcommon/suggestion.h>
#include <hxerror/hxerror.h>

#include <algorithm>
#include <utility>

#include <fmt/format.h>

// Which keys are kept, and what is told of them.

namespace HX {

void HXKeeper::keep(const std::vector<std::string>& patterns) {
  if (std::ranges::count(patterns, "") > 0) throw HXError(getName(), "keep", "an empty pattern names no key");
  {
    const std::lock_guard lock(mutex_);
    addChosen(patterns);
    noteChosen();
  }
  if (isStoreOpen()) restore(readStore());
  followChanges();
  flush();
}

void HXKeeper::forget(const std::vector<std::string>& patterns) {
  {
    const std::lock_guard lock(mutex_);
    for (const std::string& pattern : patterns) requireForgettable(pattern);
    for (const std::string& pattern : patterns) std::erase(chosen_, pattern);
    noteChosen();
    forgetKeys(journal::Filter(patterns));
  }
  followChanges();
  flush();
}

std::vector<std::string> HXKeeper::patterns() const {
  std::vector<std::string> all = given_;
  all.insert(all.end(), chosen_.begin(), chosen_.end());
  return all;
}

bool HXKeeper::isWanted(std::string_view key) const {
  // Without patterns the filter would want all there is.
  return (!given_.empty() || !chosen_.empty()) && wanted_.wantsKey(key);
}

void HXKeeper::addChosen(const std::vector<std::string>& patterns) {
  for (const std::string& pattern : patterns) {
    if (std::ranges::count(this->patterns(), pattern) == 0) chosen_.push_back(pattern);
  }
  wanted_ = journal::Filter(this->patterns());
}

/// They are to be written.
void HXKeeper::noteChosen() {
  wanted_ = journal::Filter(patterns());
  isChosenNew_ = true;
  ++noted_;
  changed_.notify_all();
}

void HXKeeper::requireForgettable(const std::string& pattern) const {
  const auto refuse = [&](const std::string& why) { throw HXError(getName(), "forget", why); };
  if (std::ranges::count(chosen_, pattern) > 0) return;
  if (std::ranges::count(given_, pattern) > 0) {
    refuse(fmt::format("{} is kept by the settings of this broker: take it out of those", pattern));
  }
  const journal::Filter named({pattern});
  if (std::ranges::any_of(left_, [&](const std::string& key) { return named.wantsKey(key); })) return;
  for (const auto& [key, row] : rows_) {
    if (named.wantsKey(key)) refuse(fmt::format("{} is kept, by {}", key, patternFor(key)));
  }
  refuse(fmt::format("nothing is kept by {}{}", pattern, didYouMean(pattern, patterns())));
}

std::string HXKeeper::patternFor(const std::string& key) const {
  const auto all = patterns();
  return *std::ranges::find_if(all, [&](const std::string& one) { return journal::Filter({one}).wantsKey(key); });
}

void HXKeeper::forgetKeys(const journal::Filter& named) {
  std::vector<std::string> gone;
  for (const auto& [key, row] : rows_) {
    if (named.wantsKey(key) && !isWanted(key)) gone.push_back(key);
  }
  for (const std::string& key : left_) {
    if (named.wantsKey(key)) gone.push_back(key);
  }
  for (const std::string& key : gone) {
    rows_.erase(key);
    left_.erase(key);
    mark(key);
  }
}

std::vector<std::string> HXKeeper::kept() {
  const std::lock_guard lock(mutex_);
  std::vector<std::string> keys;
  for (const auto& [key, row] : rows_) keys.push_back(key);
  return keys;
}

HXValue HXKeeper::state() {
  const std::lock_guard lock(mutex_);
  return HXValue::map({{"folder", folder_.string()},
                       {"keep", HXValue(patterns())},
                       {"chosen", HXValue(chosen_)},
                       {"keys", static_cast<std::int64_t>(rows_.size())},
                       {"unwritten", static_cast<std::int64_t>(dirty_.size())},
                       {"failure", failure_},
                       {"complaints", HXValue(complaints_)}});
}

}  // namespace HX
