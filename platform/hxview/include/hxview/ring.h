#pragma once

#include <hxerror/api.h>
#include <hxview/cell.h>
#include <hxview/layout.h>

#include <cstddef>
#include <cstdint>
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
  /// How many publications can be read, the latest among them.
  std::uint64_t depth() const noexcept { return shape_.slots - 1; }
  /// Copies a publication.
  /// @param number   Which.
  /// @param content  When and of what kind; the bits of a scalar.
  /// @param bytes    Of a value; what it had room for stays reserved.
  /// @return Torn when it has been overwritten.
  Outcome look(std::uint64_t number, Content& content, std::vector<std::byte>& bytes) const;
  const Word& sequence() const noexcept { return head_->sequence; }

 private:
  RingShape shape_;
  std::uint64_t owner_ = 0;
  const RingHead* head_ = nullptr;
  const std::byte* slots_ = nullptr;
};

}  // namespace HX::view
