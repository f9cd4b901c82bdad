#pragma once

#include <hxerror/api.h>
#include <hxview/cell.h>
#include <hxview/detail/copyshared.h>
#include <hxview/layout.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

namespace HX::view {

/// The measures of a ring: a segment of its own, and slots behind its head.
struct RingShape {
  std::size_t capacity = 0;  ///< Bytes of a value that a slot has room for.
  std::size_t slots = 0;     ///< At least 3. One is being written, so one fewer can be read.

  std::size_t stride() const noexcept { return strideOf(capacity); }
  /// Bytes of the whole segment.
  std::size_t bytes() const noexcept { return sizeof(SegmentHead) + sizeof(RingHead) + slots * stride(); }
};

/// Writes a ring: publication `n` into slot `n % slots`. Readers find out afterwards whether what they copied had been
/// overwritten meanwhile; nobody waits for them.
///
/// @par Threads  One at a time, under a lock of the caller's.
class HX_API RingWriter {
 public:
  /// @param segment  Of that shape, zeroed but for its head. Not owned.
  /// @param shape    As it was made.
  /// @param owner    Never used before.
  RingWriter(std::byte* segment, const RingShape& shape, std::uint64_t owner) noexcept;

  const RingShape& shape() const noexcept { return shape_; }
  /// Fills the slot that comes next. Until `commit` nobody is sent there, and it may be filled again.
  /// @param kind   Of the value; its size is set to that of `bytes`. State TooLarge and no bytes where they do not fit.
  /// @param bytes  The value.
  void prepare(Kind kind, std::span<const std::byte> bytes) noexcept;
  /// Publishes what was prepared last.
  /// @param written  Nanoseconds of the monotonic clock.
  void commit(std::uint64_t written) noexcept;
  /// The word that says how many were published.
  Word& sequence() const noexcept { return head_->sequence; }

 private:
  Word* slot(std::uint64_t number) const noexcept;

  RingShape shape_;
  RingHead* head_;
  std::byte* slots_;
};

/// Reads a ring. Trusts nothing that it finds in there but its own measures.
///
/// @par Threads  Any number of readers.
class HX_API RingReader {
 public:
  RingReader() = default;
  /// @param segment  Mapped, of that shape. Not owned.
  /// @param shape    As its maker says.
  /// @param owner    Likewise.
  RingReader(const std::byte* segment, const RingShape& shape, std::uint64_t owner) noexcept;

  const RingShape& shape() const noexcept { return shape_; }
  /// The latest publication; 0 for none.
  std::uint64_t latest() const noexcept { return head_->sequence.load(std::memory_order_acquire); }
  /// A publication may have come: has the begin of it brought while the sequence is on its way, which says whether it
  /// has. A hint, of which nothing depends.
  /// @param number  Which.
  void expect(std::uint64_t number) const noexcept {
    const std::byte* const slot = slots_ + number % shape_.slots * shape_.stride();
    for (std::size_t at = 0; at < std::min(shape_.stride(), kExpected); at += kLine) __builtin_prefetch(slot + at);
  }
  /// How many publications can be read, the latest among them.
  std::uint64_t depth() const noexcept { return shape_.slots - 1; }
  /// Copies a publication.
  /// @param number   Which.
  /// @param content  When and of what kind; the bits of a scalar.
  /// @param bytes    Of a value, in a vector of bytes or a string, which grows where they need it and never shrinks.
  /// @return Torn when it has been overwritten.
  template <class Bytes>
  Outcome look(std::uint64_t number, Content& content, Bytes& bytes) const;
  const Word& sequence() const noexcept { return head_->sequence; }

 private:
  static constexpr std::size_t kExpected = 1024;  // As many lines as a processor fetches at a time.

  RingShape shape_;
  std::uint64_t owner_ = 0;
  const RingHead* head_ = nullptr;
  const std::byte* slots_ = nullptr;
};

/// The slot of a publication is written next while the one before `number + slots` is the latest.
template <class Bytes>
Outcome RingReader::look(std::uint64_t number, Content& content, Bytes& bytes) const {
  static_assert(sizeof(typename Bytes::value_type) == 1);
  const Word* const slot = reinterpret_cast<const Word*>(slots_ + number % shape_.slots * shape_.stride());
  content.written = slot[SlotWords::kWritten].load(std::memory_order_acquire);
  content.kind = slot[SlotWords::kKind].load(std::memory_order_acquire);
  const Kind kind = Kind::of(content.kind);
  const std::size_t size = kind.state == State::Present ? kind.size : 0;
  const bool fits = size <= shape_.capacity;  // Otherwise the kind was of another time than the slot.
  if (fits) {
    if (bytes.size() < size) bytes.resize(size);
    detail::copyFromShared(reinterpret_cast<std::byte*>(bytes.data()), slot + SlotWords::kBytes, size);
  }
  if (head_->owner.load(std::memory_order_acquire) != owner_) return Outcome::Gone;
  const std::uint64_t since = head_->sequence.load(std::memory_order_relaxed) - number;
  if (!fits || since > shape_.slots - 2) return Outcome::Torn;
  content.bits = 0;
  if (size == sizeof content.bits) std::memcpy(&content.bits, bytes.data(), size);
  return Outcome::Whole;
}

}  // namespace HX::view
