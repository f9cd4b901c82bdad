#include "tally.h"

#include <algorithm>

namespace HX {

using journal::What;
using namespace std::chrono_literals;

Tally::Tally(const journal::Journal& journal, const journal::Filter& filter, TimePoint now)
    : now_(now), retained_(journal.retained()) {
  journal.scan(filter, [this](const journal::Change& change) { count(change); });
}

std::chrono::nanoseconds Tally::reach() const {
  return retained_.since ? std::max(now_ - *retained_.since, std::chrono::nanoseconds(0)) : std::chrono::nanoseconds(0);
}

const Tally::OfKey* Tally::find(std::string_view key) const {
  const auto found = keys_.find(key);
  return found == keys_.end() ? nullptr : &found->second;
}

void Tally::count(const journal::Change& change) {
  auto known = keys_.find(change.key);
  if (known == keys_.end()) known = keys_.emplace(std::string(change.key), OfKey()).first;
  OfKey& key = known->second;
  key.last = {change.time, change.at, change.what, std::string(change.author)};
  if (change.what == What::Removed) {
    ++key.removed;
    types_.erase(known->first);
  }
  if (change.what != What::Stored && change.what != What::Raised && change.what != What::RaisedMicro) return;
  ++key.changes;
  key.authors.emplace(change.author);
  if (change.time > now_ - 1s) {
    ++key.inSecond;
    ++inSecond_;
  }
  if (change.time > now_ - 1min) ++key.inMinute;
  if (!change.value.isValid()) return;  // Declared as an event: it has no type yet.
  const std::pair type(change.value.getType(), change.kind);
  const auto [earlier, isFirst] = types_.try_emplace(known->first, type);
  if (!isFirst && earlier->second != type) {
    ++key.retyped;
    earlier->second = type;
  }
}

}  // namespace HX
