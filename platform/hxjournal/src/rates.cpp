#include "rates.h"

#include <algorithm>

namespace HX::journal {
namespace {

/// Slower than this is quiet enough: the longest period, and none shorter than the clock tells apart.
std::chrono::nanoseconds periodOf(double perSecond) {
  constexpr double kLongest = 1e15;
  return std::chrono::nanoseconds(static_cast<std::int64_t>(std::clamp(1e9 / perSecond, 1.0, kLongest)));
}

std::uint32_t leftOutSince(std::uint32_t told, std::uint32_t nth) { return nth - told - 1; }

}  // namespace

Rates::Rates(double perSecond) : period_(periodOf(perSecond)) {}

bool Rates::admits(Change& change, Time now) {
  dropQuiet(now);
  const auto known = keys_.find(change.key);
  if (known == keys_.end()) {
    if (change.isState || change.what == What::Removed) return true;
    order_.emplace_back(change.key);
    try {
      keys_.emplace(change.key, Key{now + period_, change.at.revision, change.nth});
    } catch (...) {
      order_.pop_back();
      throw;
    }
    return true;
  }
  Key& key = known->second;
  // At the end of a period a state has told of it. A snapshot names its keys all the same.
  if (change.at.revision != 0 && change.at.revision <= key.revision) return change.isState;
  if (!change.isState && change.what != What::Removed) {
    if (key.marked == 0) key.marked = change.at.revision;
    return false;
  }
  change.leftOut = leftOutSince(key.nth, change.nth);
  key.revision = change.at.revision;
  // Made again, a key counts from the beginning.
  key.nth = change.what == What::Removed ? 0 : change.nth;
  key.marked = 0;
  return true;
}

std::vector<std::string> Rates::due(Time now, std::size_t most) {
  std::vector<std::string> names;
  for (auto name = order_.begin(); name != order_.end() && names.size() < most;) {
    const auto key = keys_.find(*name);
    if (key->second.due > now) break;
    if (key->second.marked != 0) {
      names.push_back(*name++);
    } else {
      keys_.erase(key);
      name = order_.erase(name);
    }
  }
  return names;
}

bool Rates::admitsState(Change& state) {
  const auto known = keys_.find(state.key);
  if (known == keys_.end() || known->second.marked == 0 || state.at.revision <= known->second.revision) return false;
  state.leftOut = leftOutSince(known->second.nth, state.nth);
  known->second.revision = state.at.revision;
  known->second.nth = state.nth;
  return true;
}

void Rates::settle(std::size_t count, Time now) {
  for (; count > 0; --count) {
    Key& key = keys_.find(order_.front())->second;
    key.due = now + period_;
    key.marked = 0;
    order_.splice(order_.end(), order_, order_.begin());
  }
}

std::uint64_t Rates::toldUpTo(std::uint64_t revision) const noexcept {
  for (const auto& [name, key] : keys_) {
    if (key.marked != 0) revision = std::min(revision, key.marked - 1);
  }
  return revision;
}

std::optional<Rates::Time> Rates::next() const {
  if (order_.empty()) return std::nullopt;
  return keys_.find(order_.front())->second.due;
}

void Rates::dropQuiet(Time now) {
  while (!order_.empty()) {
    const auto oldest = keys_.find(order_.front());
    if (oldest->second.due > now || oldest->second.marked != 0) return;
    keys_.erase(oldest);
    order_.pop_front();
  }
}

}  // namespace HX::journal
