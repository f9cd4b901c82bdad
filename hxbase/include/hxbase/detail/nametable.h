#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace HX {

/// A 64-bit hash of a name's bytes, eight at a time. Spreads well; is no defence against names made to collide.
inline std::uint64_t hashOfName(std::string_view name) noexcept {
  const auto load = [](const char* from, std::size_t count) {
    std::uint64_t word = 0;
    std::memcpy(&word, from, count);
    return word;
  };
  // Multiplying mixes upwards only, so each word is turned between two multiplications.
  const auto mix = [](std::uint64_t hash, std::uint64_t word) {
    return std::rotl((hash ^ word) * 0x9e3779b97f4a7c15U, 29) * 0xbf58476d1ce4e5b9U;
  };
  const char* at = name.data();
  std::size_t left = name.size();
  std::uint64_t hash = left * 0x94d049bb133111ebU;
  for (; left >= 8; at += 8, left -= 8) hash = mix(hash, load(at, 8));
  if (left != 0) {
    // The last eight bytes once more, where there are as many, because their number is known when this is compiled.
    hash = mix(hash, name.size() >= 8 ? load(name.data() + name.size() - 8, 8) : load(at, left));
  }
  return hash ^ (hash >> 32U);
}

/// Shared objects by their names, laid out for looking up: the name's hash says in which of many segments it is, and
/// the place in the segment's one array from which it is searched, so that a look-up touches one entry, the name and
/// little else. Segments double one by one: no insertion moves more than one of them.
///
/// The table does not keep names; it refers to those that the objects keep. Names are compared byte by byte.
///
/// @par Threads  As the standard containers.
template <class T>
class NameTable {
 public:
  using Item = std::shared_ptr<T>;

  std::size_t size() const noexcept { return size_; }

  /// Makes room for about `count` names, so that little moves until there are more.
  void reserve(std::size_t count) {
    const std::size_t each = count / kSegments;
    for (Segment& segment : segments_) segment.grow(std::bit_ceil(each + each / 3 + 1));
  }

  /// @return Null when the name is absent. Good until the table changes.
  const Item* find(std::string_view name) const noexcept {
    const std::uint32_t hash = hashOf(name);
    const Entry* entry = segments_[hash % kSegments].lookUp(name, hash);
    return entry ? &entry->item : nullptr;
  }

  /// Files an item under a name that is absent.
  /// @param name  Must stay where it is for as long as the item is filed.
  /// @return As `find`.
  const Item* insert(std::string_view name, Item item) {
    if (name.size() > std::numeric_limits<std::uint32_t>::max()) throw std::length_error("a name of over 4 GiB");
    const std::uint32_t hash = hashOf(name);
    Segment& segment = segments_[hash % kSegments];
    segment.makeRoom();
    ++size_;
    return &segment.add({std::move(item), name.data(), static_cast<std::uint32_t>(name.size()), hash}).item;
  }

  /// Takes an item out. @return Empty when the name is absent.
  Item extract(std::string_view name) {
    const std::uint32_t hash = hashOf(name);
    Segment& segment = segments_[hash % kSegments];
    const Entry* entry = segment.lookUp(name, hash);
    if (!entry) return {};
    --size_;
    return segment.take(static_cast<std::size_t>(entry - segment.entries.get()));
  }

  void clear() {
    for (Segment& segment : segments_) segment = Segment();
    size_ = 0;
  }

  /// Where a walk ends.
  static constexpr std::uint64_t kWalked = std::uint64_t{1} << 32U;
  /// Where a walk meets a name, whether it is here or not: below `kWalked`.
  static std::uint64_t placeOf(std::string_view name) noexcept { return reversed(hashOf(name)); }

  /// Calls `use(name, item)` for those who are at home in the next `homes` homes from `place` on, wherever they are
  /// kept. Between two calls the table may change: who is in it all the time is met once.
  ///
  /// Homes are visited in the order of their bit-reversed index, segment after segment. When a segment grows, each of
  /// its homes is split into two that are next to each other in this order, so that a walk goes on where it was.
  /// @param place  0, or what an earlier call returned.
  /// @param until  As `place`, or `kWalked`: the walk goes no further.
  template <class Use>
  std::uint64_t walk(std::uint64_t place, std::uint64_t until, std::size_t homes, Use&& use) const {
    for (; homes != 0 && place < until; --homes) {
      const std::uint32_t hash = reversed(static_cast<std::uint32_t>(place));
      const Segment& segment = segments_[hash % kSegments];
      segment.forEachAtHome(hash, use);
      place += kWalked / kSegments / (segment.mask + 1);
    }
    return place;
  }

  /// Calls `use(name, item)` for all, in no order.
  template <class Use>
  void forEach(Use&& use) const {
    for (const Segment& segment : segments_) {
      for (std::size_t i = 0; i <= segment.mask; ++i) {
        if (const Entry& entry = segment.entries[i]; entry.item) use(entry.name(), entry.item);
      }
    }
  }

 private:
  // Two to a cache line.
  struct alignas(32) Entry {
    Item item;  // Empty: the entry is free.
    const char* characters = nullptr;
    std::uint32_t length = 0;
    std::uint32_t hash = 0;

    std::string_view name() const noexcept { return {characters, length}; }
  };

  // Each is one more line that look-ups load, so few that they stay in the first cache. Of a million names a segment
  // has some thirty thousand, which move in a few milliseconds.
  static constexpr std::uint32_t kSegments = 32;
  static constexpr std::uint32_t kSmallest = 8;

  // Those of one segment: open addressing.
  struct Segment {
    std::unique_ptr<Entry[]> entries = std::make_unique<Entry[]>(kSmallest);
    std::uint32_t mask = kSmallest - 1;  // There are as many entries as a power of two; at least one is free.
    std::uint32_t used = 0;

    std::size_t next(std::size_t i) const noexcept { return (i + 1) & mask; }
    std::size_t homeOf(std::uint32_t hash) const noexcept { return hash / kSegments & mask; }

    const Entry* lookUp(std::string_view name, std::uint32_t hash) const noexcept {
      for (std::size_t i = homeOf(hash);; i = next(i)) {
        const Entry& entry = entries[i];
        if (!entry.item) return nullptr;
        if (entry.hash != hash) continue;
        __builtin_prefetch(entry.item.get());  // Fetched while the names are compared, which are mostly equal.
        if (entry.name() == name) return &entry;
      }
    }

    template <class Use>
    void forEachAtHome(std::uint32_t hash, Use& use) const {
      const std::size_t home = homeOf(hash);
      for (std::size_t i = home; entries[i].item; i = next(i)) {
        if (homeOf(entries[i].hash) == home) use(entries[i].name(), entries[i].item);
      }
    }

    // Three quarters full is where searches get noticeably longer.
    void makeRoom() {
      if (used >= (mask + 1) / 4 * 3) grow(2 * (mask + std::size_t{1}));
    }

    void grow(std::size_t wanted) {
      if (wanted <= mask + std::size_t{1}) return;
      const auto old = std::exchange(entries, std::make_unique<Entry[]>(wanted));
      const std::uint32_t last = std::exchange(mask, static_cast<std::uint32_t>(wanted - 1));
      used = 0;
      for (std::size_t i = 0; i <= last; ++i) {
        if (old[i].item) add(std::move(old[i]));
      }
    }

    Entry& add(Entry entry) {
      std::size_t i = homeOf(entry.hash);
      while (entries[i].item) i = next(i);
      ++used;
      return entries[i] = std::move(entry);
    }

    // A search ends at the first free entry, so whatever was pushed past the gap moves up into it.
    Item take(std::size_t gap) {
      Item item = std::move(entries[gap].item);
      --used;
      for (std::size_t i = next(gap); entries[i].item; i = next(i)) {
        const std::size_t wanted = homeOf(entries[i].hash);
        if (((i - wanted) & mask) < ((i - gap) & mask)) continue;
        entries[gap] = std::move(entries[i]);
        gap = i;
      }
      return item;
    }
  };

  static std::uint32_t hashOf(std::string_view name) noexcept { return static_cast<std::uint32_t>(hashOfName(name)); }
  static std::uint32_t reversed(std::uint32_t bits) noexcept {
    bits = (bits >> 1U & 0x55555555U) | (bits & 0x55555555U) << 1U;
    bits = (bits >> 2U & 0x33333333U) | (bits & 0x33333333U) << 2U;
    bits = (bits >> 4U & 0x0f0f0f0fU) | (bits & 0x0f0f0f0fU) << 4U;
    return __builtin_bswap32(bits);
  }

  std::array<Segment, kSegments> segments_;
  std::size_t size_ = 0;
};

}  // namespace HX
