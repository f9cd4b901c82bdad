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
constexpr auto kRetry = 1s;      // From one attempt at a disk that refuses to the next.
constexpr auto kPatience = 2ms;  // Of `flush`, between two looks.
constexpr auto kFarewell = 3s;   // How long an exit waits for the disk.

std::vector<std::string> textsOf(const HXValue& list) {
  std::vector<std::string> texts;
  for (const HXValue& text : list.asList()) texts.push_back(text.asString());
  return texts;
}

}  // namespace

HXKeeper::HXKeeper(const std::shared_ptr<HXBroker>& broker, const std::string& name) : HXModule(broker, name) {
  setModuleDescription("HXKeeper writes chosen keys of the memory to a disk, and brings them back when it starts.");
  readSettings();
  bindMethods();
}

HXKeeper::~HXKeeper() { follow_.end(); }

void HXKeeper::readSettings() {
  addSetting(Setting::texts("keep", {}, "What is kept: keys, prefixes that end with /, and globs."));
  addSetting(Setting::text("folder", "kept", "Where, in a folder that no other broker uses."));
  addSetting(Setting::duration("window", "50ms", "How long changes are gathered before they are written.")
                 .between("1ms", "1h"));
  given_ = textsOf(settings()["keep"]);
  wanted_ = journal::Filter(given_);
  folder_ = settings()["folder"].asString();
  window_ = toDuration(settings()["window"]);
}

void HXKeeper::bindMethods() {
  functionName("flush", getName(), "Returns once all that was written before is on the disk.");
  bindMethod(this, &HXKeeper::flush);
  functionName("keep", getName(), "Keeps what the patterns name too, from now on and whenever this store is opened.");
  addParam("patterns", "Keys, prefixes that end with /, and globs.");
  bindMethod(this, &HXKeeper::keep);
  functionName("forget", getName(), "Keeps what the patterns name no longer, and takes it off the disk.");
  addParam("patterns", "As they were given to keep; or others, of what earlier settings have left in the store.");
  bindMethod(this, &HXKeeper::forget);
  functionName("kept", getName(), "Lists the keys that are kept.");
  setReturn("keys", "Sorted.");
  bindMethod(this, &HXKeeper::kept);
  functionName("state", getName(), "Says what is kept where, and whether the disk takes it.");
  setReturn("state",
            "{folder, keep: the patterns, chosen: those of them that were added by keep, keys: how many, unwritten: of "
            "how many the disk has not the latest, failure: why the disk refuses, empty when it does not, complaints: "
            "what was wrong with the store when it was opened}");
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
  {
    const std::lock_guard lock(followMutex_);
    follow_.end();
  }
  if (writer_.joinable()) {
    writer_.request_stop();
    writer_.join();
  }
  HXModule::exit();
}

/// @return False when that has to be tried again.
bool HXKeeper::openStore() {
  try {
    const keeper::Rows rows = readStore();
    logComplaints();
    restore(rows);
    report({});
    return true;
  } catch (const std::exception& error) {
    {
      const std::lock_guard lock(storeMutex_);
      store_.reset();
    }
    report(error.what());
    return false;
  }
}

bool HXKeeper::isStoreOpen() {
  const std::lock_guard lock(storeMutex_);
  return store_.has_value();
}

/// Opens it, and takes over the patterns that it has.
keeper::Rows HXKeeper::readStore() {
  const std::lock_guard openLock(storeMutex_);
  if (store_) return store_->read();
  store_.emplace(folder_);
  keeper::Rows rows = store_->read();
  const std::lock_guard lock(mutex_);
  complaints_ = store_->complaints();
  addChosen(store_->patterns());
  return rows;
}

void HXKeeper::logComplaints() {
  std::vector<std::string> complaints;
  {
    const std::lock_guard lock(mutex_);
    complaints = complaints_;
  }
  for (const std::string& complaint : complaints) mw::log::error(kCategory, "open", complaint);
}

/// What is not wanted stays in the store: it may be wanted again, and a slip in the settings must not cost it.
void HXKeeper::restore(const keeper::Rows& rows) {
  const auto memory = getParentBroker()->interfaceOf<DataRestorer>("HXMemory");
  if (!memory) throw std::runtime_error("HXKeeper is not in the process of the memory");
  for (const auto& [key, row] : rows) {
    {
      // Before it is there: changes of it may be told at once.
      const std::lock_guard lock(mutex_);
      if (!isWanted(key)) {
        left_.insert(key);
        continue;
      }
      left_.erase(key);
      if (!rows_.try_emplace(key, row).second) continue;
    }
    // Where it is there already, it is newer, and the snapshot tells it.
    memory->restoreData(key, row.value, row.description, row.time);
  }
}

void HXKeeper::followChanges() {
  const std::lock_guard followLock(followMutex_);
  follow_.end();
  follow_ = {};
  journal::Filter filter;
  {
    const std::lock_guard lock(mutex_);
    isSnapshot_ = true;
    seen_.clear();
    if (patterns().empty()) return;
    filter = wanted_;
  }
  filter.addKind(kDataKind);
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
  follow_ = follow(
      std::move(filter), [this](const journal::Change& change) { onChange(change); }, std::move(options));
}

bool HXKeeper::isFollowedTo(std::uint64_t revision) {
  const std::lock_guard lock(followMutex_);
  return !follow_ || follow_.position().revision >= revision;
}

void HXKeeper::run(const std::stop_token& stop) {
  const Author::Scope inItsName(author());
  bool isLast = false;
  while (!isLast) {
    Unwritten unwritten;
    {
      std::unique_lock lock(mutex_);
      changed_.wait(lock, stop, [&] { return !dirty_.empty() || isChosenNew_ || isUrgent_ || !failure_.empty(); });
      const auto pause = failure_.empty() ? window_ : std::chrono::nanoseconds(kRetry);
      changed_.wait_for(lock, stop, pause, [&] { return isUrgent_; });
      isLast = stop.stop_requested();
      isUrgent_ = false;
      unwritten.keys.swap(dirty_);
      if (std::exchange(isChosenNew_, false)) unwritten.patterns = chosen_;
      unwritten.upTo = noted_;
    }
    if (requireStore() && write(unwritten)) continue;
    const std::lock_guard lock(mutex_);
    dirty_.merge(unwritten.keys);
    if (unwritten.patterns) isChosenNew_ = true;
    ++refusals_;
  }
}

/// By the writer: what could not be opened at the start may be there now.
bool HXKeeper::requireStore() {
  if (isStoreOpen()) return true;
  if (!openStore()) return false;
  followChanges();  // The store may have patterns of its own.
  return true;
}

bool HXKeeper::write(const Unwritten& unwritten) {
  keeper::Store::Changes changes;
  {
    const std::lock_guard lock(mutex_);
    for (const std::string& key : unwritten.keys) {
      const auto row = rows_.find(key);
      changes.emplace_back(key, row == rows_.end() ? std::nullopt : std::optional(row->second));
    }
  }
  try {
    const std::lock_guard lock(storeMutex_);
    const auto* const patterns = unwritten.patterns ? &*unwritten.patterns : nullptr;
    if (!changes.empty() || patterns) store_->commit(changes, patterns);
  } catch (const std::exception& error) {
    report(error.what());
    return false;
  }
  report({});
  const std::lock_guard lock(mutex_);
  durable_ = unwritten.upTo;
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
  const auto await = [&] {
    if (Clock::now() >= end) throw HXError(getName(), "flush", "it takes too long");
    sleepFor(kPatience);
  };
  const auto latest = retainedChanges(getParentBroker()).latest;
  while (!isFollowedTo(latest.revision)) await();
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

}  // namespace HX
