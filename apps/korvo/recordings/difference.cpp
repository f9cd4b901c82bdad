#include "difference.h"

#include <algorithm>
#include <map>
#include <set>

namespace korvo {
namespace {

using HX::recording::Entry;
using HX::recording::Table;

/// What each key became, in order.
using Courses = std::map<std::string, std::vector<Entry>>;

Courses coursesOf(const RecordedRun& run, const HX::journal::Filter& keys) {
  Courses courses;
  bool hasBegun = false;
  const std::size_t until = chunksUntil(run.reader, run.start.time);
  run.reader.forEach(
      [&](const Entry& entry) {
        if (entry.kind != Entry::Kind::Change) return true;
        // In the part in which the clock was set back, what came before has later times.
        hasBegun = hasBegun ||
                   (run.start.revision > 0 ? entry.revision >= run.start.revision : entry.logged >= run.start.time);
        if (hasBegun && keys.wantsKey(entry.key)) courses[entry.key].push_back(entry);
        return true;
      },
      until > 0 ? until - 1 : 0);
  return courses;
}

template <class Map>
std::set<std::string> keysOf(const Map& first, const Map& second) {
  std::set<std::string> keys;
  for (const auto* const one : {&first, &second}) {
    for (const auto& [key, value] : *one) keys.insert(key);
  }
  return keys;
}

std::optional<Entry> entryOf(const Table& table, const std::string& key) {
  const auto found = table.find(key);
  return found == table.end() ? std::nullopt : std::optional(found->second);
}

}  // namespace

std::vector<Difference> differencesOf(const Table& first, const Table& second) {
  std::vector<Difference> all;
  for (const std::string& key : keysOf(first, second)) {
    auto a = entryOf(first, key);
    auto b = entryOf(second, key);
    if (a && b && a->value == b->value) continue;
    all.push_back({key, 0, std::move(a), std::move(b)});
  }
  return all;
}

std::vector<Difference> differencesOf(const RecordedRun& first, const RecordedRun& second,
                                      const HX::journal::Filter& keys) {
  Courses courses = coursesOf(first, keys);
  Courses others = coursesOf(second, keys);
  std::vector<Difference> all;
  for (const std::string& key : keysOf(courses, others)) {
    const auto& course = courses[key];
    const auto& other = others[key];
    const auto isLike = [](const Entry& x, const Entry& y) { return x.value == y.value && x.what == y.what; };
    const auto [x, y] = std::mismatch(course.begin(), course.end(), other.begin(), other.end(), isLike);
    if (x == course.end() && y == other.end()) continue;
    all.push_back({key, static_cast<std::size_t>(x - course.begin()) + 1,
                   x == course.end() ? std::nullopt : std::optional(*x),
                   y == other.end() ? std::nullopt : std::optional(*y)});
  }
  return all;
}

}  // namespace korvo
