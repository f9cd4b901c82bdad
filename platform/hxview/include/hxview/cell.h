#pragma once

#include <hxview/layout.h>

#include <atomic>
#include <cstdint>

/// How a cell is written and read. Two slots, and no lock: the writer fills the one that nobody is sent to, and then
/// sends everybody there. A writer that is killed in the middle of it leaves the last whole value readable, and one
/// that is suspended keeps no reader waiting.
///
/// @par Memory ordering
/// What is read is not older than the sequence `s` that was read first: to acquire it makes publication `s` happen
/// before the loads. It is not newer either: the slot is next written by publication `s + 2`, after `s + 1` was
/// published; who gets a word of that by release and acquire has also got a sequence beyond `s`, and the second look
/// fails. Likewise the owner: it changes before anything is published for the new one. Fences would say the same, and
/// ThreadSanitizer does not follow those. On x86 all of this is plain loads and stores.
///
/// The functions are templates so that a model can walk through whatever the orders allow.
namespace HX::view {

enum class Outcome : std::uint8_t {
  Whole,  ///< What was read was published at once.
  Torn,   ///< Something was published meanwhile: look again.
  Gone,   ///< The cell is somebody else's now.
};

struct Look {
  std::uint64_t sequence = 0;
  Content content;
};

/// Publishes a content. One writer at a time, under a lock of its own.
/// @param cell     Where.
/// @param content  What.
template <class W>
void publish(CellOf<W>& cell, const Content& content) noexcept {
  const std::uint64_t next = cell.sequence.load(std::memory_order_relaxed) + 1;
  auto& slot = cell.slots[next & 1U];
  slot.written.store(content.written, std::memory_order_release);
  slot.kind.store(content.kind, std::memory_order_release);
  slot.bits.store(content.bits, std::memory_order_release);
  cell.sequence.store(next, std::memory_order_release);
}

/// Gives a cell to another use. Nothing of it is for the new one until the first `publish`.
/// @param cell   Which.
/// @param owner  Never used before; 0 for nobody.
template <class W>
void giveTo(CellOf<W>& cell, std::uint64_t owner) noexcept {
  cell.owner.store(0, std::memory_order_release);
  if (owner != 0) cell.owner.store(owner, std::memory_order_release);
}

/// Reads what is there. Any number of readers.
/// @param cell   Where.
/// @param owner  For which use.
/// @param seen   What was read; means nothing unless it was whole.
/// @return How that went.
template <class W>
Outcome look(const CellOf<W>& cell, std::uint64_t owner, Look& seen) noexcept {
  seen.sequence = cell.sequence.load(std::memory_order_acquire);
  const auto& slot = cell.slots[seen.sequence & 1U];
  seen.content.written = slot.written.load(std::memory_order_acquire);
  seen.content.kind = slot.kind.load(std::memory_order_acquire);
  seen.content.bits = slot.bits.load(std::memory_order_acquire);
  if (cell.owner.load(std::memory_order_acquire) != owner) return Outcome::Gone;
  return cell.sequence.load(std::memory_order_relaxed) == seen.sequence ? Outcome::Whole : Outcome::Torn;
}

}  // namespace HX::view
