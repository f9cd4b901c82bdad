#include "recorder.h"

#include <libmw/clock.h>

#include <algorithm>
#include <utility>

#include <fmt/format.h>

namespace HX::recording {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t kChunkBytes = std::size_t{1} << 20U;
constexpr std::size_t kMostWaiting = std::size_t{64} << 20U;  // Then the disk is too slow.
constexpr auto kPatience = 2s;                                // For the feed, at the end.
constexpr int kParts = 8;                                     // Of what is kept, unless somebody says how to split.

}  // namespace

Recorder::Recorder(RecorderOptions options, Feed feed)
    : options_(std::move(options)), feed_(std::move(feed)), compressor_(options_.compression) {
  for (const auto& [pattern, hertz] : options_.rates) {
    rates_.push_back({journal::Filter({pattern}), std::chrono::nanoseconds(static_cast<std::int64_t>(1e9 / hertz))});
  }
  if (options_.splitBytes == 0) options_.splitBytes = options_.keepBytes / kParts;
  if (options_.splitTime == 0ns) options_.splitTime = options_.keepTime / kParts;
  begin();
}

void Recorder::begin() {
  TextMap first;
  const journal::Position latest = feed_.latest();
  {
    const MutexLock lock(mutex_);
    latest_ = latest;
    statesAt_ = mw::systemNow();
    partBegan_ = Clock::now();
    first = about();
  }
  openPart(first);
  journal::Filter filter(options_.keys);
  if (!options_.keys.empty()) filter.addKey(std::string(kNoteKey));
  for (const std::string& pattern : options_.except) filter.exclude(pattern);
  journal::FollowOptions follow;
  follow.promptness = journal::Promptness::Relaxed;
  follow.onGap = [this](const journal::Gap& gap) { onGap(gap); };
  follow.onUnchanged = [this](std::string_view key, journal::Position) {
    const MutexLock lock(mutex_);
    encoder_.name(key);
  };
  follow.onComplete = [this](journal::Position) {
    const MutexLock lock(mutex_);
    encoder_.forgetUnnamed(mw::systemNow());
    state_.hasBegun = true;
  };
  writer_ = std::thread([this] { run(); });
  try {
    follow_ = feed_.follow(
        std::move(filter), [this](const journal::Change& change) { onChange(change); }, std::move(follow));
  } catch (...) {
    {
      const MutexLock lock(mutex_);
      ends_ = true;
    }
    changed_.notify_all();
    writer_.join();
    throw;
  }
  follows_ = true;
}

Recorder::~Recorder() {
  try {
    stop();
  } catch (const std::exception&) {  // Who wants to know calls it.
  }
}

TextMap Recorder::about() const {
  TextMap all = options_.about;
  all.insert_or_assign("epoch", std::to_string(latest_.epoch));
  all.insert_or_assign("revision", std::to_string(latest_.revision));
  return all;
}

std::filesystem::path Recorder::partPath(std::size_t number) const {
  if (number == 1) return options_.file;
  std::filesystem::path path = options_.file;
  path.replace_filename(
      fmt::format("{}-{}{}", options_.file.stem().string(), number, options_.file.extension().string()));
  return path;
}

// --- On the feed's thread --------------------------------------------------------------------------------------------

void Recorder::onChange(const journal::Change& change) {
  {
    const MutexLock lock(mutex_);
    if (isTooEarly(change)) return;
    add(change);
    afterChange();
  }
  // Nothing is kept for us meanwhile: what is left out is told as a gap.
  if (wantsPause_.exchange(false)) follow_.pause();
}

void Recorder::onGap(const journal::Gap& gap) {
  const MutexLock lock(mutex_);
  const bool isOfOneEpoch = gap.from.epoch == gap.to.epoch;
  latest_ = gap.to;
  // Revisions of another epoch mean something else: they get a file of their own.
  if (!isOfOneEpoch && gap.from.epoch != 0) beginPart();
  ++state_.gaps;
  if (isOfOneEpoch && gap.from.revision > 0) state_.missed += gap.to.revision - gap.from.revision;
  statesAt_ = mw::systemNow();
  encoder_.add(gap, statesAt_);
  afterChange();
}

/// Keeps the latest of those that come faster than wanted.
bool Recorder::isTooEarly(const journal::Change& change) {
  const auto rate = std::ranges::find_if(rates_, [&](const Rate& one) { return one.keys.wantsKey(change.key); });
  if (change.what == What::Removed) {
    held_.erase(std::string(change.key));
    due_.erase(std::string(change.key));
  }
  if (rate == rates_.end() || change.isState || change.what == What::Removed) return false;
  const auto now = Clock::now();
  auto due = due_.find(change.key);
  if (due == due_.end()) due = due_.emplace(change.key, Clock::time_point()).first;
  if (now >= due->second) {
    due->second = now + rate->period;
    held_.erase(due->first);
    return false;
  }
  Held& held = held_[due->first];
  held.key = due->first;
  held.change = change;
  held.change.key = held.key;
  held.change.author = {};  // Its text is not ours to keep.
  return true;
}

void Recorder::add(const journal::Change& change) {
  if (encoder_.chunk().isEmpty()) chunkBegan_ = Clock::now();
  encoder_.add(change, statesAt_);
  if (change.at.epoch != 0 && change.at.revision > latest_.revision) latest_ = change.at;
  ++state_.changes;
}

void Recorder::afterChange() {
  if (encoder_.chunk().records.size() >= kChunkBytes) closeChunk();
}

void Recorder::closeChunk() {
  if (encoder_.chunk().isEmpty()) return;
  Job job{encoder_.takeChunk(), std::exchange(nextPart_, std::nullopt)};
  if (!state_.failure.empty()) return;
  waiting_ += job.chunk.records.size();
  jobs_.push_back(std::move(job));
  if (waiting_ > kMostWaiting && !isClogged_ && follows_) isClogged_ = wantsPause_ = true;
  changed_.notify_all();
}

void Recorder::beginPart() {
  closeChunk();
  nextPart_ = about();
  partBegan_ = chunkBegan_ = Clock::now();
  statesAt_ = mw::systemNow();
  encoder_.beginFile(statesAt_);
}

// --- By anybody ------------------------------------------------------------------------------------------------------

void Recorder::awaitLatest() const {
  try {
    const auto wanted = feed_.latest();
    const auto end = Clock::now() + kPatience;
    const auto isBehind = [&] {
      const auto position = follow_.position();
      return position.epoch == wanted.epoch && position.revision < wanted.revision;
    };
    while (isBehind() && Clock::now() < end) std::this_thread::sleep_for(1ms);
  } catch (const std::exception&) {  // The broker has gone, and nothing more comes.
  }
}

void Recorder::stop() {
  if (!writer_.joinable()) return;
  bool isPaused = false;
  {
    const MutexLock lock(mutex_);
    isPaused = state_.isPaused || isClogged_;
  }
  if (!isPaused) awaitLatest();
  follow_.end();
  {
    const MutexLock lock(mutex_);
    ends_ = true;
    tellHeld();
    closeChunk();
  }
  changed_.notify_all();
  writer_.join();
  const MutexLock lock(mutex_);
  if (!state_.failure.empty()) throw RecordingError(state_.failure);
}

void Recorder::pause() {
  {
    const MutexLock lock(mutex_);
    state_.isPaused = true;
  }
  follow_.pause();
}

void Recorder::resume() {
  {
    const MutexLock lock(mutex_);
    if (!std::exchange(state_.isPaused, false) || isClogged_) return;
  }
  follow_.resume();
}

void Recorder::split() {
  const MutexLock lock(mutex_);
  beginPart();
  closeChunk();
}

RecorderState Recorder::state() const {
  const MutexLock lock(mutex_);
  RecorderState state = state_;
  state.keys = encoder_.keys();
  state.isCrowded = encoder_.isFull();
  return state;
}

}  // namespace HX::recording
