#pragma once

#include <hxvalue/hxvalue.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

/// Values in memory that several processes share: one writes, any number read, and nobody waits for anybody.
///
/// A segment is one file of memory without a name, of a fixed size. Its first line is a `SegmentHead`. Behind it lie
/// either cells, a line each, or one ring. All of it is made of atomic words; nothing in it is an address.
namespace HX::view {

using Word = std::atomic<std::uint64_t>;
static_assert(Word::is_always_lock_free && sizeof(Word) == 8, "a lock would lie in one process only");

inline constexpr std::size_t kLine = 64;
inline constexpr std::uint64_t kMagic = 0x7765'6976'7672'6f6bU;  ///< "korvview", as its bytes lie.
inline constexpr std::uint64_t kLayout = 1;

/// How it stands with a value.
enum class State : std::uint8_t {
  Present,       ///< There is one.
  Absent,        ///< The memory has no such key.
  OtherType,     ///< It is not of the type that was asked for.
  TooLarge,      ///< It has more bytes than the view has room for.
  AddressKnown,  ///< Code of the memory's process writes it through an address, and tells nobody.
  Disconnected,  ///< The broker has ended, or is being looked for again.
  Busy,          ///< It changed each time that it was looked at.
};

/// One word: the type of a value, how it stands with it, and how many bytes it has.
struct Kind {
  HXValue::Type type = HXValue::Type::Invalid;
  State state = State::Absent;
  std::uint32_t size = 0;

  constexpr std::uint64_t word() const noexcept {
    return static_cast<std::uint64_t>(type) | static_cast<std::uint64_t>(state) << 8U |
           static_cast<std::uint64_t>(size) << 32U;
  }
  /// @param word  May be anything: what it says of type and state is only as good as whoever wrote it.
  /// @return What it says.
  static constexpr Kind of(std::uint64_t word) noexcept {
    return {static_cast<HXValue::Type>(word & 0xffU), static_cast<State>(word >> 8U & 0xffU),
            static_cast<std::uint32_t>(word >> 32U)};
  }
};

/// The first line of a segment.
struct alignas(kLine) SegmentHead {
  Word magic{kMagic};
  Word layout{kLayout};
  Word beat{0};   ///< When the writing process was last seen running, nanoseconds of the monotonic clock.
  Word ended{0};  ///< Not 0: it has ended in order, and writes nothing more.
};
static_assert(sizeof(SegmentHead) == kLine);

/// What is published at a time.
struct Content {
  std::uint64_t written = 0;  ///< Nanoseconds of the monotonic clock.
  std::uint64_t kind = 0;     ///< As `Kind::word`.
  std::uint64_t bits = 0;     ///< Of a scalar, as `HXValue::scalarBits`.
};

/// A number, a bool, or that there is none.
template <class W>
struct alignas(kLine) CellOf {
  struct Slot {
    W written{0};
    W kind{0};
    W bits{0};
  };
  W sequence{0};  ///< Publications since the cell was made, never reset. The latest lies in slot `sequence & 1`.
  W owner{0};     ///< Which use of the cell this is, a number that is never used twice; 0 for none.
  Slot slots[2];
};
using Cell = CellOf<Word>;
static_assert(sizeof(Cell) == kLine);

/// In front of a ring, whose slots lie behind it: two words (written, kind) and the bytes of a value each.
struct alignas(kLine) RingHead {
  Word sequence{0};
  Word owner{0};
};
static_assert(sizeof(RingHead) == kLine);

/// Which words of a ring's slot are what.
struct SlotWords {
  static constexpr std::size_t kWritten = 0;
  static constexpr std::size_t kKind = 1;
  static constexpr std::size_t kBytes = 2;  ///< From here on.
};

/// How many bytes a slot takes: whole lines.
/// @param capacity  Bytes of a value that it has room for.
/// @return Bytes from one slot to the next.
constexpr std::size_t strideOf(std::size_t capacity) noexcept {
  return (2 * sizeof(Word) + capacity + kLine - 1) / kLine * kLine;
}

}  // namespace HX::view
