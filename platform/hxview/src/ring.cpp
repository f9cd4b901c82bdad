#include <hxview/detail/copyshared.h>
#include <hxview/ring.h>

#include <cstring>

namespace HX::view {
namespace {

// Of a slot: written, kind, bytes.
constexpr std::size_t kWritten = 0;
constexpr std::size_t kKind = 1;
constexpr std::size_t kBytes = 2;

}  // namespace

RingWriter::RingWriter(std::byte* segment, const RingShape& shape, std::uint64_t owner) noexcept
    : shape_(shape),
      head_(reinterpret_cast<RingHead*>(segment + sizeof(SegmentHead))),
      slots_(segment + sizeof(SegmentHead) + sizeof(RingHead)) {
  head_->owner.store(owner, std::memory_order_release);
}

Word* RingWriter::slot(std::uint64_t number) const noexcept {
  return reinterpret_cast<Word*>(slots_ + number % shape_.slots * shape_.stride());
}

void RingWriter::prepare(Kind kind, std::span<const std::byte> bytes) noexcept {
  Word* const next = slot(head_->sequence.load(std::memory_order_relaxed) + 1);
  kind.size = static_cast<std::uint32_t>(bytes.size());
  if (bytes.size() > shape_.capacity) {
    kind.state = State::TooLarge;
    bytes = {};
  }
  next[kKind].store(kind.word(), std::memory_order_release);
  detail::copyToShared(next + kBytes, bytes.data(), bytes.size());
}

void RingWriter::commit(std::uint64_t written) noexcept {
  const std::uint64_t next = head_->sequence.load(std::memory_order_relaxed) + 1;
  slot(next)[kWritten].store(written, std::memory_order_release);
  head_->sequence.store(next, std::memory_order_release);
}

RingReader::RingReader(const std::byte* segment, const RingShape& shape, std::uint64_t owner) noexcept
    : shape_(shape),
      owner_(owner),
      head_(reinterpret_cast<const RingHead*>(segment + sizeof(SegmentHead))),
      slots_(segment + sizeof(SegmentHead) + sizeof(RingHead)) {}

/// The slot of a publication is written next while the one before `number + slots` is the latest.
Outcome RingReader::look(std::uint64_t number, Content& content, std::vector<std::byte>& bytes) const {
  const Word* const slot = reinterpret_cast<const Word*>(slots_ + number % shape_.slots * shape_.stride());
  content.written = slot[kWritten].load(std::memory_order_acquire);
  content.kind = slot[kKind].load(std::memory_order_acquire);
  const Kind kind = Kind::of(content.kind);
  const std::size_t size = kind.state == State::Present ? kind.size : 0;
  const bool fits = size <= shape_.capacity;  // Otherwise the kind was of another time than the slot.
  if (fits) {
    if (bytes.size() < size) bytes.resize(size);
    detail::copyFromShared(bytes.data(), slot + kBytes, size);
  }
  if (head_->owner.load(std::memory_order_acquire) != owner_) return Outcome::Gone;
  const std::uint64_t since = head_->sequence.load(std::memory_order_relaxed) - number;
  if (!fits || since > shape_.slots - 2) return Outcome::Torn;
  content.bits = 0;
  if (size == sizeof content.bits) std::memcpy(&content.bits, bytes.data(), size);
  return Outcome::Whole;
}

}  // namespace HX::view
