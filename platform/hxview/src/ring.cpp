#include <hxview/ring.h>

namespace HX::view {

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
  next[SlotWords::kKind].store(kind.word(), std::memory_order_release);
  detail::copyToShared(next + SlotWords::kBytes, bytes.data(), bytes.size());
}

void RingWriter::commit(std::uint64_t written) noexcept {
  const std::uint64_t next = head_->sequence.load(std::memory_order_relaxed) + 1;
  slot(next)[SlotWords::kWritten].store(written, std::memory_order_release);
  head_->sequence.store(next, std::memory_order_release);
}

RingReader::RingReader(const std::byte* segment, const RingShape& shape, std::uint64_t owner) noexcept
    : shape_(shape),
      owner_(owner),
      head_(reinterpret_cast<const RingHead*>(segment + sizeof(SegmentHead))),
      slots_(segment + sizeof(SegmentHead) + sizeof(RingHead)) {}

}  // namespace HX::view
