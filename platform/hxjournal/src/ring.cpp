#include "ring.h"

#include <hxerror/mutex.h>

#include <algorithm>
#include <bit>
#include <iterator>
#include <utility>

namespace HX::journal {
namespace {

/// What a value takes beside its entry; elements are counted, not what is in them, so that it is known at once.
std::size_t bytesOf(const HXValue& value) noexcept {
  if (value.getType() < HXValue::Type::String)
    return 0;  // As most are: nothing is asked of the other library for them.
  if (const auto* text = value.stringIf()) return text->size();
  if (const auto* binary = value.binaryIf()) return binary->size();
  return value.getSize() * sizeof(HXValue);
}

std::size_t placeOf(std::uint64_t revision) noexcept { return revision % kChunkSize; }

}  // namespace

Ring::Pin::Pin(Ring& ring, std::uint64_t cursor, std::uint64_t limit, std::uint64_t behind) noexcept : ring_(ring) {
  const Lock lock(ring.lock_);
  // NOLINTNEXTLINE(cppcoreguidelines-prefer-member-initializer): what it asks is guarded by the lock.
  lapped_ = cursor < ring.oldest_ || ring.head_ - cursor > behind;
  limit = std::min(limit, ring.head_);
  if (lapped_ || cursor >= limit) return;
  chunk_ = ring.slotOf(cursor);
  ++chunk_->pins;
  const std::size_t count = std::min<std::uint64_t>(limit - cursor, kChunkSize - placeOf(cursor));
  entries_ = std::span(chunk_->entries).subspan(placeOf(cursor), count);
}

Ring::Pin::~Pin() {
  if (!entries_.empty()) ring_.unpin(chunk_);
}

Ring::Ring(const Journal::Options& options) noexcept
    : chunks_(std::bit_ceil(std::max<std::size_t>(options.chunks, 2))), budget_(options.bytes) {}

Ring::Store Ring::makeStore() const {
  Store store{Chunks(chunks_), {}};
  store.ring.reserve(chunks_);
  for (auto chunk = store.chunks.begin(); chunk != store.chunks.end(); ++chunk) store.ring.push_back(chunk);
  return store;
}

void Ring::open(Store& store) noexcept {
  const Lock lock(lock_);
  used_.swap(store.chunks);
  ring_.swap(store.ring);
  // At the beginning of a chunk, and not next to the last one: what changed while nothing was recorded lies in the
  // hole.
  head_ = (head_ / kChunkSize + 1) * kChunkSize;
  began_ = oldest_ = kept_ = head_;
  lastRemoval_ = 0;
}

void Ring::close(Store& store, std::list<Grave>& graves) noexcept {
  const Lock lock(lock_);
  used_.swap(store.chunks);
  ring_.swap(store.ring);
  graves_.swap(graves);
  current_ = nullptr;
  bytes_ = 0;
  oldest_ = kept_ = head_;
}

std::uint64_t Ring::append(Entry& entry, std::list<Grave>* grave, Afterwards& after) noexcept {
  const Lock lock(lock_);
  const std::uint64_t revision = head_;
  if (placeOf(revision) == 0) turn(revision);
  Entry& slot = current_->entries[placeOf(revision)];
  bytes_ += bytesOf(entry.value);
  bytes_ -= bytesOf(slot.value);
  slot.value.swap(after.values_[0]);
  slot = std::move(entry);
  head_ = revision + 1;
  if (grave) {
    grave->front().last = lastRemoval_ = revision;
    graves_.splice(graves_.end(), *grave);
  }
  if (bytes_ > budget_) [[unlikely]]
    releaseOldest(after);
  if (!graves_.empty()) [[unlikely]]
    releaseGraves(after);
  if (ringWanted_) [[unlikely]] {
    ringWanted_ = false;
    after.ring_ = true;
  }
  return revision;
}

/// Begins a chunk. What was in it can be read up to now and no longer, nor can it be pinned from now on.
void Ring::turn(std::uint64_t revision) noexcept {
  auto& slot = slotOf(revision);
  if (slot->first != 0) oldest_ = std::max(oldest_, slot->first + kChunkSize);
  if (slot->pins != 0) {
    slot->detached = true;
    detached_.splice(detached_.end(), used_, slot);
    used_.splice(used_.end(), spare_, spare_.begin());
    slot = std::prev(used_.end());
    kept_ = std::max(kept_, oldest_);
  }
  slot->first = revision;
  current_ = &*slot;
}

/// Four at a time, which gains on whoever brings one.
void Ring::releaseOldest(Afterwards& after) noexcept {
  // What the new chunk has overwritten is not there any more.
  const std::uint64_t capacity = chunks_ * kChunkSize;
  if (head_ > capacity) kept_ = std::max(kept_, head_ - capacity);
  for (std::size_t i = 1; i < Afterwards::kValues && bytes_ > budget_ && kept_ + 1 < head_;) {
    Chunk& chunk = *slotOf(kept_);
    if (kept_ >= oldest_) {
      if (chunk.pins != 0) break;
      oldest_ = kept_ + 1;
    }
    HXValue& value = chunk.entries[placeOf(kept_)].value;
    bytes_ -= bytesOf(value);
    after.values_[i++].swap(value);
    ++kept_;
  }
}

/// Two at a time: no more than one comes with an append.
void Ring::releaseGraves(Afterwards& after) noexcept {
  std::uint64_t read = oldest_;  // Whatever is older, nobody reads.
  for (const Chunk& chunk : detached_) read = std::min(read, chunk.first);
  for (int i = 0; i < 2 && !graves_.empty() && graves_.front().last < read; ++i) {
    after.graves_.splice(after.graves_.end(), graves_, graves_.begin());
  }
}

void Ring::unpin(Chunks::iterator chunk) noexcept {
  {
    const Lock lock(lock_);
    if (!chunk->detached || chunk->pins > 1) {
      --chunk->pins;
      return;
    }
  }
  // The last reader of a detached chunk is alone with it.
  std::size_t bytes = 0;
  for (Entry& entry : chunk->entries) {
    bytes += bytesOf(entry.value);
    entry.value = HXValue();
  }
  const Lock lock(lock_);
  bytes_ -= bytes;
  chunk->pins = 0;
  chunk->detached = false;
  spare_.splice(spare_.end(), detached_, chunk);
}

void Ring::addSpare(Chunks& one) noexcept {
  const Lock lock(lock_);
  spare_.splice(spare_.end(), one);
}

Ring::Chunks Ring::takeSpare() noexcept {
  Chunks one;
  const Lock lock(lock_);
  one.splice(one.end(), spare_, spare_.begin());
  return one;
}

std::uint64_t Ring::head() const noexcept {
  const Lock lock(lock_);
  return head_;
}

Ring::Extent Ring::extent() const noexcept {
  const Lock lock(lock_);
  return {began_, oldest_, head_, lastRemoval_};
}

bool Ring::fallAsleep(Sleeper& sleeper, std::uint64_t cursor) noexcept {
  const Lock lock(lock_);
  if (head_ != cursor) return false;
  sleeper = {true, sleeper.nap + 1, cursor};
  ringWanted_ = true;
  return true;
}

std::uint64_t Ring::fallAsleepUnrung(Sleeper& sleeper, std::uint64_t cursor) noexcept {
  const Lock lock(lock_);
  sleeper = {true, sleeper.nap + 1, cursor};
  return sleeper.nap;
}

bool Ring::wake(Sleeper& sleeper) noexcept {
  const Lock lock(lock_);
  return std::exchange(sleeper.asleep, false);
}

bool Ring::wakeFrom(Sleeper& sleeper, std::uint64_t nap) noexcept {
  const Lock lock(lock_);
  return sleeper.nap == nap && std::exchange(sleeper.asleep, false);
}

bool Ring::wakeIfNews(Sleeper& sleeper) noexcept {
  const Lock lock(lock_);
  return sleeper.cursor != head_ && std::exchange(sleeper.asleep, false);
}

bool Ring::askForBell(std::uint64_t head) noexcept {
  const Lock lock(lock_);
  if (head_ != head) return false;
  ringWanted_ = true;
  return true;
}

void Ring::askForBell() noexcept {
  const Lock lock(lock_);
  ringWanted_ = true;
}

void Ring::forgetBell() noexcept {
  const Lock lock(lock_);
  ringWanted_ = false;
}

}  // namespace HX::journal
