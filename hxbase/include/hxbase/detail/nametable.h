#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

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

/// Shared objects by their names, laid out for looking up: one array, searched from the place that the name's hash
/// says, so that a look-up touches one entry, the name and nothing else.
///
/// The table does not keep names; it refers to those that the objects keep. Names are compared byte by byte.
///
/// @par Threads  As the standard containers.
template <class T>
class NameTable {
 public:
  using Item = std::shared_ptr<T>;

  std::size_t size() const noexcept { return size_; }

  /// Makes room for `count` names, so that nothing moves until there are more.
  void reserve(std::size_t count) { grow(std::bit_ceil(count + count / 3 + 1)); }

  /// @return Null when the name is absent. Good until the table changes.
  const Item* find(std::string_view name) const noexcept {
    const Entry* entry = lookUp(name);
    return entry ? &entry->item : nullptr;
  }

  /// Files an item under a name that is absent.
  /// @param name  Must stay where it is for as long as the item is filed.
  /// @return As `find`.
  const Item* insert(std::string_view name, Item item) {
    if (name.size() > std::numeric_limits<std::uint32_t>::max()) throw std::length_error("a name of over 4 GiB");
    // Three quarters full is where searches get noticeably longer.
    if (size_ + 1 > entries_.size() / 4 * 3) grow(entries_.empty() ? kSmallest : entries_.size() * 2);
    ++size_;
    return &place({std::move(item), name.data(), static_cast<std::uint32_t>(name.size()), hashOf(name)}).item;
  }

  /// Takes an item out. @return Empty when the name is absent.
  Item extract(std::string_view name) {
    Entry* entry = const_cast<Entry*>(lookUp(name));
    if (!entry) return {};
    --size_;
    Item item = std::move(entry->item);
    closeGap(static_cast<std::size_t>(entry - entries_.data()));
    return item;
  }

  void clear() {
    entries_.clear();
    size_ = 0;
  }

  /// Where a walk ends.
  static constexpr std::uint64_t kWalked = std::uint64_t{1} << 32U;
  /// Where a walk meets a name, whether it is here or not: below `kWalked`.
  static std::uint64_t placeOf(std::string_view name) noexcept { return reversed(hashOf(name)); }

  /// Calls `use(name, item)` for those who are at home in the next `homes` homes from `place` on, wherever they are
  /// kept. Between two calls the table may change: who is in it all the time is met once.
  ///
  /// Homes are visited in the order of their bit-reversed index. When the table grows, each is split into two that are
  /// next to each other in this order, so that a walk goes on where it was.
  /// @param place  0, or what an earlier call returned.
  /// @param until  As `place`, or `kWalked`: the walk goes no further.
  template <class Use>
  std::uint64_t walk(std::uint64_t place, std::uint64_t until, std::size_t homes, Use&& use) const {
    if (entries_.empty()) return until;
    const std::uint64_t width = kWalked / entries_.size();
    for (; homes != 0 && place < until; --homes, place += width) {
      const std::size_t home = reversed(static_cast<std::uint32_t>(place)) & mask();
      for (std::size_t i = home; entries_[i].item; i = (i + 1) & mask()) {
        if ((entries_[i].hash & mask()) == home) use(entries_[i].name(), entries_[i].item);
      }
    }
    return place;
  }

  /// Calls `use(name, item)` for all, in no order.
  template <class Use>
  void forEach(Use&& use) const {
    for (const Entry& entry : entries_) {
      if (entry.item) use(entry.name(), entry.item);
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
  static constexpr std::size_t kSmallest = 8;

  static std::uint32_t hashOf(std::string_view name) noexcept { return static_cast<std::uint32_t>(hashOfName(name)); }
  std::size_t mask() const noexcept { return entries_.size() - 1; }
  static std::uint32_t reversed(std::uint32_t bits) noexcept {
    bits = (bits >> 1U & 0x55555555U) | (bits & 0x55555555U) << 1U;
    bits = (bits >> 2U & 0x33333333U) | (bits & 0x33333333U) << 2U;
    bits = (bits >> 4U & 0x0f0f0f0fU) | (bits & 0x0f0f0f0fU) << 4U;
    return __builtin_bswap32(bits);
  }

  const Entry* lookUp(std::string_view name) const noexcept {
    if (entries_.empty()) return nullptr;
    const std::uint32_t hash = hashOf(name);
    for (std::size_t i = hash & mask();; i = (i + 1) & mask()) {
      const Entry& entry = entries_[i];
      if (!entry.item) return nullptr;
      if (entry.hash != hash) continue;
      __builtin_prefetch(entry.item.get());  // Fetched while the names are compared, which are mostly equal.
      if (entry.name() == name) return &entry;
    }
  }

  Entry& place(Entry entry) {
    std::size_t i = entry.hash & mask();
    while (entries_[i].item) i = (i + 1) & mask();
    return entries_[i] = std::move(entry);
  }

  void grow(std::size_t count) {
    if (count <= entries_.size()) return;
    std::vector<Entry> old(count);
    old.swap(entries_);
    for (Entry& entry : old) {
      if (entry.item) place(std::move(entry));
    }
  }

  // A search ends at the first free entry, so whatever was pushed past the gap moves up into it.
  void closeGap(std::size_t gap) {
    for (std::size_t i = (gap + 1) & mask(); entries_[i].item; i = (i + 1) & mask()) {
      const std::size_t wanted = entries_[i].hash & mask();
      if (((i - wanted) & mask()) < ((i - gap) & mask())) continue;
      entries_[gap] = std::move(entries_[i]);
      gap = i;
    }
  }

  std::vector<Entry> entries_;  // As many as a power of two; at least one is free.
  std::size_t size_ = 0;
};

}  // namespace HX
