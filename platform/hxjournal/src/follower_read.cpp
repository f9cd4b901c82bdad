#include "core.h"
#include "follower.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace HX::journal {
namespace {

constexpr std::size_t kSliceHomes = 64;
constexpr std::size_t kSliceKeys = 64;
constexpr std::size_t kDueKeys = 64;

}  // namespace

void Follower::Batch::clear() noexcept {
  all.clear();
  names.clear();
  authors.clear();
  gap.reset();
  next = 0;
}

Follower::Told& Follower::Batch::add(Told::Type type, std::string_view name) {
  const std::size_t at = names.size();
  names.append(name);
  Told& told = all.emplace_back();
  told.type = type;
  told.nameAt = at;
  told.nameLength = static_cast<std::uint32_t>(name.size());
  return told;
}

std::string_view Follower::Batch::nameOf(const Told& told) const noexcept {
  return std::string_view(names).substr(told.nameAt, told.nameLength);
}

/// Puts the states that it is shown into the batch.
class Follower::Collector : public Visitor {
 public:
  /// @param isDue  For the end of a period of a rate, rather than for a slice of a walk.
  Collector(Follower& follower, bool isDue) : follower_(follower), isDue_(isDue) {}

  bool wants(std::string_view name) override { return follower_.filter_.wantsKey(name); }

  void visit(std::string_view name, State state) override {
    // A key that a rate has kept back may have left the wanted kinds meanwhile, which is news too.
    if (!isDue_ && !follower_.filter_.wantsKind(state.kind)) return;
    if (!isDue_) follower_.slice_.emplace(name, state.revision);
    const auto since = isDue_ ? std::nullopt : follower_.walk_->since;
    const bool isKnown = since && state.revision <= *since && !state.byAddress;
    Told& told = follower_.batch_.add(isKnown ? Told::Type::Unchanged : Told::Type::Change, name);
    told.change.at = {follower_.core_->epoch, state.revision};
    if (isKnown) return;
    told.change.value = std::move(state.value);
    told.change.time = state.time;
    told.change.nth = state.nth;
    told.change.kind = state.kind;
    told.change.byAddress = state.byAddress;
    told.change.isState = true;
  }

 private:
  Follower& follower_;
  const bool isDue_;
};

void Follower::begin() {
  const auto extent = core_->ring.extent();
  cursor_ = extent.head;
  if (!options_.since) {
    if (options_.snapshot) {
      startWalk(std::nullopt);
    } else {
      position_ = cursor_ - 1;
    }
    return;
  }
  const Position since = *options_.since;
  const bool isKnown =
      since.epoch == core_->epoch && since.revision + 1 >= extent.began && since.revision < extent.head;
  if (isKnown) position_ = since.revision;
  if (isKnown && since.revision + 1 >= extent.oldest && extent.head - since.revision - 1 <= behind_) {
    cursor_ = since.revision + 1;
    completeAt_ = extent.head - 1;
    return;
  }
  const bool isFull = !isKnown || extent.lastRemoval > since.revision;
  addGap({since, {core_->epoch, extent.head - 1}, isFull});
  startWalk(isFull ? std::nullopt : std::optional(since.revision));
}

/// @return False when there is nothing to be told.
/// @throws std::bad_alloc, with nothing read.
bool Follower::refill() {
  batch_.clear();
  try {
    if (refillDue()) return true;
    const std::uint64_t limit = walk_ ? walk_->end : std::numeric_limits<std::uint64_t>::max();
    const Ring::Pin pin(core_->ring, cursor_, limit, behind_);
    if (pin.isLapped()) {
      fallBehind();
      return true;
    }
    if (!pin.entries().empty()) {
      readOn(pin.entries());
      return true;
    }
  } catch (...) {
    batch_.clear();
    throw;
  }
  return refillAtEnd();
}

void Follower::readOn(std::span<const Entry> entries) {
  for (std::size_t i = 0; i < entries.size(); ++i) read(entries[i], cursor_ + i);
  cursor_ += entries.size();
  looks_ = 0;
  isNews_ = true;
}

void Follower::read(const Entry& entry, std::uint64_t revision) {
  const std::string_view name = entry.name();
  // With a rate, that a key has left the wanted kinds may not have been told yet when it is removed.
  const bool mayHaveChangedKind = entry.changedKind || (rates_ && entry.what == What::Removed);
  if (!filter_.wantsChange(entry.what, entry.kind, mayHaveChangedKind) || !filter_.wantsKey(name)) return;
  if (walk_ && !isWalkedPast(entry, revision)) return;
  const auto& author = authorOf(entry.author);
  if (filter_.asksForAuthors() && !filter_.wantsAuthor(author ? *author : std::string_view())) return;
  Told& told = batch_.add(Told::Type::Change, name);
  Change& change = told.change;
  if (author) {
    if (batch_.authors.empty() || batch_.authors.back() != author) batch_.authors.push_back(author);
    change.author = *author;
  }
  change.value = entry.value;
  change.time = entry.time;
  change.at = {core_->epoch, revision};
  change.nth = entry.nth;
  change.what = entry.what;
  change.kind = entry.kind;
  change.changedKind = entry.changedKind;
  change.byAddress = entry.byAddress;
}

const std::shared_ptr<const std::string>& Follower::authorOf(std::uint32_t number) {
  if (number != knownAuthor_) {
    knownText_ = Author::textOf(number);
    knownAuthor_ = number;
  }
  return knownText_;
}

/// Whether the walk leaves this change to the feed; otherwise a state says it, or will.
bool Follower::isWalkedPast(const Entry& entry, std::uint64_t revision) const {
  const std::uint64_t distance = distanceOf(entry.name());
  if (distance >= walk_->progress) return false;
  if (distance < walk_->sliceFrom) return true;
  const auto state = slice_.find(entry.name());
  return state == slice_.end() ? revision >= walk_->begin : revision > state->second;
}

/// The feed is read as far as it may be.
bool Follower::refillAtEnd() {
  if (walk_ && walk_->progress < roundLength()) {
    walkSlice();
    return true;
  }
  std::optional<std::uint64_t> complete;
  if (walk_) complete = walk_->end - 1;
  if (completeAt_ && cursor_ > *completeAt_) complete = completeAt_;
  if (!complete) return false;
  batch_.add(Told::Type::Complete).change.at = {core_->epoch, *complete};
  walk_.reset();
  completeAt_.reset();
  slice_.clear();
  return true;
}

void Follower::walkSlice() {
  slice_.clear();
  const std::uint64_t begin = core_->ring.head();
  std::uint64_t progress = 0;
  try {
    Collector collector(*this, false);
    progress = showSlice(collector);
  } catch (...) {
    batch_.clear();
    throw;
  }
  walk_->sliceFrom = std::exchange(walk_->progress, progress);
  walk_->begin = begin;
  walk_->end = core_->ring.head();
}

std::uint64_t Follower::showSlice(Collector& collector) const {
  const std::uint64_t length = roundLength();
  const std::uint64_t place = (walk_->start + walk_->progress) % length;
  const std::uint64_t until = std::min(length, place + length - walk_->progress);
  if (!filter_.isExact()) {
    return walk_->progress + core_->source.walk(place, until, kSliceHomes, collector) - place;
  }
  const std::size_t count = std::min<std::uint64_t>(until - place, kSliceKeys);
  core_->source.show(std::span(filter_.keys()).subspan(place, count), collector);
  return walk_->progress + count;
}

std::uint64_t Follower::roundLength() const noexcept {
  return filter_.isExact() ? filter_.keys().size() : Source::kEnd;
}

/// How far a wanted name lies from where the walk began.
std::uint64_t Follower::distanceOf(std::string_view name) const noexcept {
  const auto& keys = filter_.keys();
  const std::uint64_t place =
      filter_.isExact() ? static_cast<std::uint64_t>(std::ranges::lower_bound(keys, name, std::less<>()) - keys.begin())
                        : core_->source.placeOf(name);
  return (place + roundLength() - walk_->start) % roundLength();
}

void Follower::startWalk(std::optional<std::uint64_t> since) {
  Walk walk;
  walk.since = since;
  if (walk_) walk.start = (walk_->start + walk_->progress) % roundLength();
  walk.begin = walk.end = cursor_;
  walk_ = walk;
}

void Follower::fallBehind() {
  const auto extent = core_->ring.extent();
  const std::optional<std::uint64_t> since = walk_ ? walk_->since : std::optional(cursor_ - 1);
  const bool isFull = !since || extent.lastRemoval > *since;
  addGap({{core_->epoch, cursor_ - 1}, {core_->epoch, extent.head - 1}, isFull});
  gaps_.fetch_add(1, std::memory_order_relaxed);
  cursor_ = extent.head;
  completeAt_.reset();
  startWalk(isFull ? std::nullopt : since);
}

void Follower::addGap(const Gap& gap) {
  batch_.add(Told::Type::Gap);
  batch_.gap = gap;
}

/// The keys that a rate has kept back, at the end of their periods.
bool Follower::refillDue() {
  if (!rates_) return false;
  const auto now = core_->executor->now();
  const auto names = rates_->due(now, kDueKeys);
  if (names.empty()) return false;
  Collector collector(*this, true);
  core_->source.show(names, collector);
  for (Told& told : batch_.all) told.change.key = batch_.nameOf(told);
  std::erase_if(batch_.all, [this](Told& told) { return !rates_->admitsState(told.change); });
  for (Told& told : batch_.all) told.isDue = true;
  rates_->settle(names.size(), now);
  return true;
}

}  // namespace HX::journal
