#include "hxkeeper.h"

#include <hxcommon/datarestorer.h>
#include <hxcommon/feed.h>
#include <hxcommon/hxbroker.h>
#include <hxcommon/units.h>
#include <hxproxies/hxmemoryproxy.h>
#include <libmw/log.h>

#include <algorithm>
#include <utility>

#include <fmt/format.h>

namespace HX {
namespace {

using namespace std::chrono_literals;
using keeper::Row;

const char* const kCategory = "hxkeeper";
constexpr auto kRetry = 1s;        // From one attempt at a disk that refuses to the next.
constexpr auto kPatience = 2ms;    // Of `flush`, between two looks.
constexpr auto kFarewell = 3s;     // How long an exit waits for the disk.
constexpr std::uint8_t kData = 1;  // What the memory calls data.

std::vector<std::string> textsOf(const HXValue& list) {
  std::vector<std::string> texts;
  for (const HXValue& text : list.asList()) texts.push_back(text.asString());
  return texts;
}

}  // namespace

HXKeeper::HXKeeper(const std::shared_ptr<HXBroker>& broker, const std::string& name) : HXModule(broker, name) {
  setModuleDescription("HXKeeper writes chosen keys of the memory to a disk, and brings them back when it starts.");
  addSetting(Setting::texts("keep", {}, "What is kept: keys, prefixes that end with /, and globs."));
  addSetting(Setting::text("folder", "kept", "Where, in a folder that no other broker uses."));
  addSetting(Setting::duration("window", "50ms", "How long changes are gathered before they are written.")
                 .between("1ms", "1h"));
  patterns_ = textsOf(settings()["keep"]);
  folder_ = settings()["folder"].asString();
  window_ = toDuration(settings()["window"]);
  bindMethods();
}

HXKeeper::~HXKeeper() { follow_.end(); }

void HXKeeper::bindMethods() {
  functionName("flush", getName(), "Returns once all that was written before is on the disk.");
  bindMethod(this, &HXKeeper::flush);
  functionName("kept", getName(), "Lists the keys that are kept.");
  setReturn("keys", "Sorted.");
  bindMethod(this, &HXKeeper::kept);
  functionName("state", getName(), "Says what is kept where, and whether the disk takes it.");
  setReturn("state",
            "{folder, keep: the patterns, keys: how many, failure: why the disk refuses, empty when it does not}");
  bindMethod(this, &HXKeeper::state);
}

void HXKeeper::init() {
  openStore();
  followChanges();
  writer_ = std::jthread([this](const std::stop_token& stop) { run(stop); });
}

void HXKeeper::exit() {
  try {
    flushUntil(Clock::now() + kFarewell);
  } catch (const std::exception& error) {
    mw::log::error(kCategory, "exit", fmt::format("what was written last is not kept: {}", error.what()));
  }
  follow_.end();
  if (writer_.joinable()) {
    writer_.request_stop();
    writer_.join();
  }
  HXModule::exit();
}

/// @return False when that has to be tried again.
bool HXKeeper::openStore() {
  try {
    store_.emplace(folder_);
    const keeper::Rows rows = store_->read();
    for (const std::string& complaint : store_->complaints()) mw::log::error(kCategory, "open", complaint);
    restore(rows);
    report({});
    return true;
  } catch (const std::exception& error) {
    store_.reset();
    report(error.what());
    return false;
  }
}

/// What is not wanted stays in the store: it may be wanted again, and a slip in the settings must not cost it.
void HXKeeper::restore(const keeper::Rows& rows) {
  if (patterns_.empty()) return;
  const auto memory = getParentBroker()->interfaceOf<DataRestorer>("HXMemory");
  if (!memory) throw std::runtime_error("HXKeeper is not in the process of the memory");
  const journal::Filter wanted(patterns_);
  for (const auto& [key, row] : rows) {
    if (!wanted.wantsKey(key)) continue;
    {
      // Before it is there: changes of it may be told at once.
      const std::lock_guard lock(mutex_);
      rows_.try_emplace(key, row);
    }
    if (memory->restoreData(key, row.value, row.description, row.time)) continue;
    // What the memory has is newer. If it is data, that is told too.
    const std::lock_guard lock(mutex_);
    const auto known = rows_.find(key);
    if (known != rows_.end() && known->second.time == row.time) rows_.erase(known);
    mark(key);
  }
}

void HXKeeper::followChanges() {
  if (patterns_.empty()) return;
  journal::FollowOptions options;
  options.promptness = journal::Promptness::Relaxed;
  options.onGap = [this](const journal::Gap&) {
    const std::lock_guard lock(mutex_);
    isSnapshot_ = true;
    seen_.clear();
  };
  options.onUnchanged = [this](std::string_view key, journal::Position) {
    const std::lock_guard lock(mutex_);
    seen_.emplace(key);
  };
  options.onComplete = [this](journal::Position) { onSnapshotEnd(); };
  journal::Filter filter(patterns_);
  filter.addKind(kData);
  follow_ = follow(
      std::move(filter), [this](const journal::Change& change) { onChange(change); }, std::move(options));
}

void HXKeeper::onChange(const journal::Change& change) {
  // A state has no description, and one that was set before the journal recorded is told by no change.
  const std::string description = change.isState && change.kind == kData ? descriptionOf(change.key) : std::string();
  const std::lock_guard lock(mutex_);
  if (change.what == journal::What::Described) {
    noteDescription(std::string(change.key), change.value.isString() ? change.value.asString() : std::string());
  } else if (change.what == journal::What::Removed || change.kind != kData) {
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
  if (change.isState && known != rows_.end() && known->second.value == change.value) return;
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

void HXKeeper::run(const std::stop_token& stop) {
  bool isLast = false;
  while (!isLast) {
    std::set<std::string> keys;
    std::uint64_t upTo = 0;
    {
      std::unique_lock lock(mutex_);
      changed_.wait(lock, stop, [&] { return !dirty_.empty() || isUrgent_ || !failure_.empty(); });
      const auto pause = failure_.empty() ? window_ : std::chrono::nanoseconds(kRetry);
      changed_.wait_for(lock, stop, pause, [&] { return isUrgent_; });
      isLast = stop.stop_requested();
      isUrgent_ = false;
      keys.swap(dirty_);
      upTo = noted_;
    }
    const bool isOpen = store_ || openStore();
    if (isOpen && write(keys, upTo)) continue;
    const std::lock_guard lock(mutex_);
    dirty_.merge(keys);
    ++refusals_;
  }
}

bool HXKeeper::write(const std::set<std::string>& keys, std::uint64_t upTo) {
  keeper::Store::Changes changes;
  {
    const std::lock_guard lock(mutex_);
    for (const std::string& key : keys) {
      const auto row = rows_.find(key);
      changes.emplace_back(key, row == rows_.end() ? std::nullopt : std::optional(row->second));
    }
  }
  try {
    if (!changes.empty()) store_->commit(changes);
  } catch (const std::exception& error) {
    report(error.what());
    return false;
  }
  report({});
  const std::lock_guard lock(mutex_);
  durable_ = upTo;
  return true;
}

void HXKeeper::report(const std::string& failure) {
  std::string before;
  {
    const std::lock_guard lock(mutex_);
    before = std::exchange(failure_, failure);
  }
  if (!failure.empty() && failure != before) {
    mw::log::error(kCategory, "write", fmt::format("{}; the memory goes on, and it is tried again", failure));
  }
  if (failure.empty() && !before.empty()) mw::log::info(kCategory, "write", "the disk takes all again");
}

void HXKeeper::flush() { flushUntil(Clock::time_point::max()); }

void HXKeeper::flushUntil(Clock::time_point end) {
  if (patterns_.empty()) return;
  const auto await = [&] {
    if (Clock::now() >= end) throw HXError(getName(), "flush", "it takes too long");
    sleepFor(kPatience);
  };
  const auto latest = retainedChanges(getParentBroker()).latest;
  while (follow_.position().revision < latest.revision) await();
  std::unique_lock lock(mutex_);
  const std::uint64_t wanted = noted_;
  const std::uint64_t refused = refusals_;
  while (durable_ < wanted) {
    if (refusals_ > refused) throw HXError(getName(), "flush", failure_);
    isUrgent_ = true;
    changed_.notify_all();
    lock.unlock();
    await();
    lock.lock();
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
                       {"keep", HXValue(patterns_)},
                       {"keys", static_cast<std::int64_t>(rows_.size())},
                       {"failure", failure_}});
}

}  // namespace HX
