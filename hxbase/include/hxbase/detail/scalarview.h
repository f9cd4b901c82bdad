#pragma once

#include <hxvalue/hxvalue.h>

#include <atomic>
#include <cstdint>

namespace HX {

/// A copy of a number for readers without a lock; what is no number (a text, a list) is hidden, and read under the lock
/// of whoever keeps it.
///
/// @par Threads  One writer at a time, under a lock of its own; any number of readers. A reader that meets a writer is
///   turned away rather than kept waiting, so that a writer that is suspended holds up nobody's processor.
/// @par Memory ordering  A sequence lock whose data are atomic themselves. The writer makes the sequence odd, stores
///   the bits with release, and makes the sequence even again with release. A reader that gets new bits has, by the
///   acquire, also got the odd sequence before them, and sees on its second look that the sequence has changed. So two
///   equal, even looks have the bits of one write between them. Fences would say the same, and ThreadSanitizer does
///   not follow those.
class ScalarView {
 public:
  /// @param value  Invalid or a scalar.
  void show(const HXValue& value) noexcept { write(static_cast<std::uint64_t>(value.getType()), value.scalarBits()); }
  void hide() noexcept { write(kHidden, 0); }

  /// @return False when there is nothing to be had without the lock; `value` is then as it was.
  bool read(HXValue& value) const noexcept {
    const std::uint64_t state = state_.load(std::memory_order_acquire);
    if (state & (kWriting | kHidden)) return false;
    const std::uint64_t bits = bits_.load(std::memory_order_acquire);
    if (state_.load(std::memory_order_relaxed) != state) return false;
    value = HXValue::fromScalarBits(static_cast<HXValue::Type>(state & kType), bits);
    return true;
  }

 private:
  // The state: type, hidden, writing, and above them how often something was written.
  static constexpr std::uint64_t kType = 0x3f;
  static constexpr std::uint64_t kHidden = 0x40;
  static constexpr std::uint64_t kWriting = 0x80;
  static constexpr std::uint64_t kOneWrite = 0x100;

  void write(std::uint64_t kind, std::uint64_t bits) noexcept {
    const std::uint64_t before = state_.load(std::memory_order_relaxed) & ~(kOneWrite - 1);
    state_.store(before | kWriting, std::memory_order_relaxed);
    bits_.store(bits, std::memory_order_release);
    state_.store((before + kOneWrite) | kind, std::memory_order_release);
  }

  std::atomic<std::uint64_t> state_{static_cast<std::uint64_t>(HXValue::Type::Invalid)};
  std::atomic<std::uint64_t> bits_{0};
};

}  // namespace HX
