#include "showroom.h"

#include <hxview/cell.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>

namespace HX {
namespace {

using std::chrono::milliseconds;

constexpr std::size_t kCellSegment = std::size_t{256} << 10U;
/// A view has one whole value to read while the next is being written.
constexpr std::size_t kViewSlots = 3;
/// A beat this many times as often as somebody wants to know of it: a late one is not missed.
constexpr int kBeats = 4;
constexpr milliseconds kFastest{5};
constexpr milliseconds kSlowest{1000};

view::RingShape shapeOf(const view::Wish& wish) {
  return {wish.capacity, wish.depth == 0 ? kViewSlots : std::max(wish.depth + 1, kViewSlots)};
}

bool isEnough(const view::RingShape& has, const view::RingShape& wanted) {
  return has.capacity >= wanted.capacity && has.slots >= wanted.slots;
}

}  // namespace

Showroom::Showroom(std::function<std::shared_ptr<view::Host>()> findHost, const Limits& limits)
    : findHost_(std::move(findHost)), limits_(limits) {}

std::shared_ptr<const view::Segment> Showroom::makeSegment(std::size_t bytes) {
  std::size_t used = 0;
  for (const auto& [id, weak] : segments_) {
    if (const auto segment = weak.lock()) used += segment->size();
  }
  if (bytes > limits_.bytes || used > limits_.bytes - bytes) {
    throw std::runtime_error(
        fmt::format("views use {} of {} bytes, and this one needs {}: {}", used, limits_.bytes, bytes, largestUsers()));
  }
  auto made = std::make_shared<const view::Segment>(bytes);
  segments_[++lastSegment_] = made;
  return made;
}

std::string Showroom::largestUsers() const {
  constexpr std::size_t kMost = 3;
  std::vector<std::pair<std::size_t, std::string>> users;
  for (const auto& [key, record] : records_) {
    std::size_t bytes = 0;
    for (const RingUse& ring : record.rings) bytes += ring.segment->size();
    if (bytes > 0) users.emplace_back(bytes, key);
  }
  std::ranges::sort(users, std::greater<>());
  std::string text = "the largest are";
  for (std::size_t i = 0; i < std::min(users.size(), kMost); ++i) {
    text += fmt::format("{} {} ({} bytes)", i > 0 ? "," : "", users[i].second, users[i].first);
  }
  return users.empty() ? "there are no others" : text;
}

Showroom::CellUse Showroom::takeCell() {
  if (freeCells_.empty()) {
    const auto segment = makeSegment(kCellSegment);
    for (std::size_t offset = segment->size() - sizeof(view::Cell); offset >= sizeof(view::SegmentHead);
         offset -= sizeof(view::Cell)) {
      freeCells_.push_back({lastSegment_, segment, offset});
    }
  }
  const FreeCell free = freeCells_.back();
  freeCells_.pop_back();
  CellUse use;
  use.owner = ++lastOwner_;
  use.segmentId = free.segmentId;
  use.segment = free.segment;
  use.offset = free.offset;
  use.cell = reinterpret_cast<view::Cell*>(free.segment->data() + free.offset);
  view::giveTo(*use.cell, use.owner);
  return use;
}

Showroom::RingUse Showroom::makeRing(const view::RingShape& shape) {
  const auto segment = makeSegment(shape.bytes());
  Use use{++lastOwner_, 0, lastSegment_, segment};
  return {use, view::RingWriter(segment->data(), shape, use.owner)};
}

void Showroom::requireRoom(const view::Wish& wish, const std::string& viewer) const {
  if (ended_) throw std::runtime_error("HXViews is ending");
  const auto own = std::ranges::count_if(leases_, [&](const auto& one) { return one.second.viewer == viewer; });
  if (std::cmp_greater_equal(own, limits_.viewsOfAViewer)) {
    throw std::runtime_error(
        fmt::format("{} has {} views, and no more are allowed", viewer.empty() ? "the broker's process" : viewer, own));
  }
  if (wish.capacity == 0) return;
  const bool isSane = wish.capacity <= limits_.ringBytes && wish.depth <= limits_.ringBytes;
  // The measures first, for the product of two large ones might be small.
  if (isSane && shapeOf(wish).slots <= limits_.ringBytes / view::strideOf(wish.capacity)) return;
  throw std::runtime_error(fmt::format("{}: {} values of {} bytes are more than a view may have, {} bytes", wish.key,
                                       std::max<std::size_t>(wish.depth, 1), wish.capacity, limits_.ringBytes));
}

/// Has the memory show a key by what its record says.
void Showroom::show(const std::string& key, Record& record, bool isCellNew, std::size_t ringsKnown) {
  const auto host = findHost_();
  if (!host) throw std::runtime_error("HXViews is not in the process of the memory");
  if (!record.cell && record.rings.empty()) return host->showBy(key, nullptr);
  view::Shown::Parts parts;
  parts.isCellNew = isCellNew;
  parts.ringsKnown = ringsKnown;
  parts.waker = pulse_;
  const auto addTarget = [&](const Use& use, view::Word& sequence) {
    view::Shown::Target target{&sequence, {}};
    for (const BellUse& bell : record.bells) {
      if (bell.owner == use.owner) target.bells.push_back(bell.bell);
    }
    if (!target.bells.empty()) parts.targets.push_back(std::move(target));
    parts.segments.push_back(use.segment);
  };
  if (record.cell) {
    parts.cell = record.cell->cell;
    addTarget(*record.cell, record.cell->cell->sequence);
  }
  for (const RingUse& ring : record.rings) {
    parts.rings.push_back(ring.writer);
    addTarget(ring, ring.writer.sequence());
  }
  host->showBy(key, std::make_shared<const view::Shown>(std::move(parts)));
}

Showroom::Lease Showroom::open(const view::Wish& wish, const std::string& viewer) {
  const MutexLock lock(mutex_);
  requireRoom(wish, viewer);
  Record& record = records_[wish.key];
  const std::size_t ringsBefore = record.rings.size();
  bool isCellNew = false;
  try {
    Use* use = nullptr;
    Lease lease{lastLease_ + 1, wish.key, viewer, 0, nullptr, 0, 0, {}, wish.aliveWithin};
    if (wish.capacity == 0) {
      if (!record.cell) {
        record.cell = std::make_unique<CellUse>(takeCell());
        isCellNew = true;
      }
      use = record.cell.get();
      lease.offset = record.cell->offset;
    } else {
      const view::RingShape wanted = shapeOf(wish);
      auto found = std::ranges::find_if(record.rings,
                                        [&](const RingUse& ring) { return isEnough(ring.writer.shape(), wanted); });
      if (found == record.rings.end()) {
        record.rings.push_back(makeRing(wanted));
        found = std::prev(record.rings.end());
      }
      use = &*found;
      lease.shape = found->writer.shape();
    }
    lease.owner = use->owner;
    lease.segment = use->segment;
    lease.segmentId = use->segmentId;
    const auto known = leases_.emplace(lease.number, lease).first;
    try {
      setPulse();  // Before it is shown: nothing may fail behind that.
      if (isCellNew || record.rings.size() > ringsBefore) show(wish.key, record, isCellNew, ringsBefore);
    } catch (...) {
      leases_.erase(known);
      throw;
    }
    ++use->leases;
    ++lastLease_;
    return lease;
  } catch (...) {
    tidy(record);
    if (!record.cell && record.rings.empty()) records_.erase(wish.key);
    throw;
  }
}

/// Takes out what nobody uses. The memory must not write it any more.
void Showroom::tidy(Record& record) {
  if (record.cell && record.cell->leases == 0) {
    view::giveTo(*record.cell->cell, 0);
    freeCells_.push_back({record.cell->segmentId, record.cell->segment, record.cell->offset});
    record.cell.reset();
  }
  std::erase_if(record.rings, [](const RingUse& ring) { return ring.leases == 0; });
}

void Showroom::release(Lease lease) {
  const auto found = records_.find(lease.key);
  if (found == records_.end()) return;
  Record& record = found->second;
  if (record.cell && record.cell->owner == lease.owner) --record.cell->leases;
  for (RingUse& ring : record.rings) ring.leases -= ring.owner == lease.owner ? 1U : 0U;
  const std::size_t bells =
      std::erase_if(record.bells, [&](const BellUse& bell) { return bell.lease == lease.number; });
  const bool isUnused = (record.cell && record.cell->leases == 0) ||
                        std::ranges::any_of(record.rings, [](const RingUse& ring) { return ring.leases == 0; });
  if (isUnused || bells > 0) {
    // Kept until the memory shows the key by what is left; then nobody writes it any more.
    Record left;
    if (record.cell && record.cell->leases > 0) left.cell = std::make_unique<CellUse>(*record.cell);
    std::ranges::copy_if(record.rings, std::back_inserter(left.rings),
                         [](const RingUse& ring) { return ring.leases > 0; });
    left.bells = record.bells;
    show(lease.key, left, false, left.rings.size());
    tidy(record);
  }
  if (!record.cell && record.rings.empty()) records_.erase(found);
}

void Showroom::close(std::uint64_t number) noexcept {
  const MutexLock lock(mutex_);
  auto taken = leases_.extract(number);
  if (!taken || ended_) return;
  try {
    release(std::move(taken.mapped()));
    setPulse();
  } catch (const std::exception&) {
    // No memory to take it out: it goes on being written until the key is viewed again.
  }
}

void Showroom::addBell(std::uint64_t number, const std::shared_ptr<view::Bell>& bell) {
  const MutexLock lock(mutex_);
  const auto lease = leases_.find(number);
  if (lease == leases_.end() || ended_) throw std::runtime_error(fmt::format("there is no view {}", number));
  Record& record = records_.at(lease->second.key);
  record.bells.push_back({number, lease->second.owner, bell});
  try {
    show(lease->second.key, record, false, record.rings.size());
  } catch (...) {
    record.bells.pop_back();
    throw;
  }
}

void Showroom::removeBell(std::uint64_t number, const view::Bell* bell) noexcept {
  const MutexLock lock(mutex_);
  const auto lease = leases_.find(number);
  if (lease == leases_.end() || ended_) return;
  Record& record = records_.at(lease->second.key);
  std::erase_if(record.bells, [&](const BellUse& one) { return one.bell.get() == bell; });
  try {
    show(lease->second.key, record, false, record.rings.size());
  } catch (const std::exception&) {
    // Likewise: it is looked at for nothing.
  }
}

void Showroom::setPulse() {
  Pulse::Segments segments;
  milliseconds sharpest = kSlowest * kBeats;
  for (const auto& [number, lease] : leases_) {
    sharpest = std::min(sharpest, lease.aliveWithin);
    segments.push_back(lease.segment);
  }
  std::ranges::sort(segments);
  segments.erase(std::unique(segments.begin(), segments.end()), segments.end());
  pulse_->beatIn(std::move(segments), std::clamp(sharpest / kBeats, kFastest, kSlowest));
}

void Showroom::end() noexcept {
  pulse_->stop();
  const MutexLock lock(mutex_);
  ended_ = true;
  const auto host = findHost_();
  for (const auto& [key, record] : records_) {
    try {
      if (host) host->showBy(key, nullptr);
    } catch (const std::exception&) {
      // It has gone.
    }
  }
  for (const auto& [id, weak] : segments_) {
    if (const auto segment = weak.lock()) segment->head().ended.store(1, std::memory_order_relaxed);
  }
}

HXValue Showroom::report() const {
  const MutexLock lock(mutex_);
  const auto number = [](std::size_t size) { return HXValue(static_cast<std::int64_t>(size)); };
  HXValue::List views;
  for (const auto& [id, lease] : leases_) {
    const Record& record = records_.at(lease.key);
    const auto waiting = std::ranges::count_if(record.bells, [&, id = id](const BellUse& bell) {
      return bell.lease == id && bell.bell->word->load(std::memory_order_relaxed) != 0;
    });
    views.push_back(HXValue::map({{"key", lease.key},
                                  {"viewer", lease.viewer},
                                  {"bytes", number(lease.shape.slots == 0 ? sizeof(view::Cell) : lease.shape.bytes())},
                                  {"depth", number(lease.shape.slots == 0 ? 1 : lease.shape.slots - 1)},
                                  {"isWaiting", waiting > 0}}));
  }
  std::size_t bytes = 0;
  for (const auto& [id, weak] : segments_) {
    if (const auto segment = weak.lock()) bytes += segment->size();
  }
  return HXValue::map({{"views", HXValue::list(std::move(views))},
                       {"bytes", number(bytes)},
                       {"limits", HXValue::map({{"bytes", number(limits_.bytes)},
                                                {"ringBytes", number(limits_.ringBytes)},
                                                {"viewsOfAViewer", number(limits_.viewsOfAViewer)}})}});
}

}  // namespace HX
