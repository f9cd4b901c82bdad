#include "expectations.h"

#include <algorithm>
#include <utility>

namespace HX {

std::optional<Expectations::Standing> Expectations::expect(const std::string& key, Duration limit, TimePoint now) {
  const auto [found, isNew] = entries_.try_emplace(key);
  Entry& entry = found->second;
  if (isNew) entry.last = now;
  stopWaiting(entry);
  entry.limit = limit;
  const bool wasOverdue = std::exchange(entry.isOverdue, entry.isOverdue && now - entry.last >= limit);
  if (!entry.isOverdue) wait(*found);
  if (!wasOverdue || entry.isOverdue) return std::nullopt;
  return standing(*found, now);
}

bool Expectations::forget(std::string_view key) {
  const auto found = entries_.find(key);
  if (found == entries_.end()) return false;
  stopWaiting(found->second);
  entries_.erase(found);
  return true;
}

std::optional<Expectations::Standing> Expectations::write(std::string_view key, TimePoint at,
                                                          mw::SystemTimePoint time) {
  const auto found = entries_.find(key);
  if (found == entries_.end()) return std::nullopt;
  Entry& entry = found->second;
  // The first write that is told of may be older than the expectation.
  if (entry.time && at < entry.last) return std::nullopt;
  Standing before = standing(*found, at);
  entry.last = at;
  entry.time = time;
  const bool wasOverdue = std::exchange(entry.isOverdue, false);
  if (!entry.waits || (*entry.waits)->first > at + entry.limit) wait(*found);
  return wasOverdue ? std::optional(std::move(before)) : std::nullopt;
}

bool Expectations::knows(std::string_view key, mw::SystemTimePoint time) const {
  const auto found = entries_.find(key);
  return found != entries_.end() && found->second.time == time;
}

std::optional<Expectations::TimePoint> Expectations::next() const {
  return waiting_.empty() ? std::nullopt : std::optional(waiting_.begin()->first);
}

std::vector<std::string> Expectations::takeDue(TimePoint now) {
  std::vector<std::string> due;
  while (!waiting_.empty() && waiting_.begin()->first <= now) {
    const auto found = entries_.find(waiting_.begin()->second);
    Entry& entry = found->second;
    stopWaiting(entry);
    if (entry.last + entry.limit > now) {
      wait(*found);
    } else {
      due.push_back(found->first);
    }
  }
  return due;
}

std::optional<Expectations::Standing> Expectations::declareOverdue(std::string_view key, TimePoint now) {
  const auto found = entries_.find(key);
  if (found == entries_.end() || found->second.waits || found->second.isOverdue) return std::nullopt;
  found->second.isOverdue = true;
  return standing(*found, now);
}

std::vector<Expectations::Standing> Expectations::all(TimePoint now) const {
  std::vector<Standing> all;
  all.reserve(entries_.size());
  for (const auto& entry : entries_) all.push_back(standing(entry, now));
  return all;
}

std::vector<std::string> Expectations::keys() const {
  std::vector<std::string> keys;
  keys.reserve(entries_.size());
  for (const auto& [key, entry] : entries_) keys.push_back(key);
  return keys;
}

Expectations::Standing Expectations::standing(const Entries::value_type& entry, TimePoint now) {
  const auto& [key, known] = entry;
  return {key, std::max(Duration::zero(), now - known.last), known.limit, known.isOverdue};
}

void Expectations::wait(Entries::value_type& entry) {
  auto& [key, known] = entry;
  stopWaiting(known);
  known.waits = waiting_.emplace(known.last + known.limit, key);
}

void Expectations::stopWaiting(Entry& entry) {
  if (entry.waits) waiting_.erase(*std::exchange(entry.waits, std::nullopt));
}

}  // namespace HX
