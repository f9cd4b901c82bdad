#include "hxkeeper.h"

#include <hxerror/hxerror.h>
#include <hxproxies/hxmemoryproxy.h>

#include <utility>

// What the keeper notes of the changes that it follows.

namespace HX {

using keeper::Row;

void HXKeeper::onChange(const journal::Change& change) {
  // A state has no description, and one that was set before the journal recorded is told by no change.
  const std::string description =
      change.isState && change.kind == kDataKind ? descriptionOf(change.key) : std::string();
  const std::lock_guard lock(mutex_);
  if (!isWanted(change.key)) return;  // It has just been forgotten.
  if (change.what == journal::What::Described) {
    noteDescription(std::string(change.key), change.value.isString() ? change.value.asString() : std::string());
  } else if (change.what == journal::What::Removed || change.kind != kDataKind) {
    noteRemoval(std::string(change.key));
  } else if (change.value.isValid()) {
    noteValue(change);
    if (!description.empty()) noteDescription(std::string(change.key), description);
  }
}

std::string HXKeeper::descriptionOf(std::string_view key) {
  try {
    const HXValue found = memory().getDescriptionList({std::string(key)});
    // As many empty entries as keys, and then [name, kind, text].
    return found.getSize() > 1 ? found[1][2].asString() : std::string();
  } catch (const HXError&) {  // It has been removed meanwhile, of which a change tells.
    return {};
  }
}

void HXKeeper::noteValue(const journal::Change& change) {
  if (isSnapshot_) seen_.emplace(change.key);
  const auto known = rows_.find(change.key);
  // What was restored is told by the snapshot again.
  const bool isKnown = known != rows_.end() && known->second.value == change.value && known->second.time == change.time;
  if (change.isState && isKnown) return;
  Row& row = known != rows_.end() ? known->second : rows_[std::string(change.key)];
  row.value = change.value;
  row.time = change.time;
  mark(std::string(change.key));
}

void HXKeeper::noteDescription(const std::string& key, const std::string& text) {
  const auto known = rows_.find(key);
  if (known == rows_.end() || known->second.description == text) return;
  known->second.description = text;
  mark(key);
}

void HXKeeper::noteRemoval(const std::string& key) {
  if (rows_.erase(key) > 0) mark(key);
}

void HXKeeper::mark(const std::string& key) {
  dirty_.insert(key);
  ++noted_;
  changed_.notify_all();
}

/// A key that no snapshot tells has gone meanwhile.
void HXKeeper::onSnapshotEnd() {
  const std::lock_guard lock(mutex_);
  if (!std::exchange(isSnapshot_, false)) return;
  std::vector<std::string> gone;
  for (const auto& [key, row] : rows_) {
    if (!seen_.contains(key)) gone.push_back(key);
  }
  for (const std::string& key : gone) noteRemoval(key);
  seen_.clear();
}

}  // namespace HX
