#pragma once

#include <hxerror/api.h>
#include <hxview/cell.h>
#include <hxview/clock.h>
#include <hxview/codec.h>
#include <hxview/opened.h>

#include <algorithm>
#include <chrono>
#include <concepts>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <type_traits>

namespace HX::view {

/// How often a value is looked at that changes each time.
inline constexpr int kTries = 64;

/// @param state  Anything but Present.
/// @throws std::runtime_error that says it.
[[noreturn]] HX_API void failNoValue(State state);
/// @param written  By the monotonic clock.
/// @return How long ago.
HX_API std::chrono::nanoseconds since(std::uint64_t written) noexcept;

/// Looks at nothing that is shared for as long as a few writes take: no system call.
HX_API void standBack() noexcept;

/// @param now    By the monotonic clock.
/// @param then   Likewise; a moment later when it was said by another processor meanwhile.
/// @param limit  Between the two.
/// @return Whether that is not exceeded.
inline bool isWithin(std::uint64_t now, std::uint64_t then, std::chrono::milliseconds limit) noexcept {
  const auto passed = static_cast<std::int64_t>(now - then);
  return passed <= std::chrono::nanoseconds(limit).count();
}

/// Into what the bytes of a T are copied: those of a text or binary become the value as they are.
template <Viewable T>
using Raw = std::conditional_t<std::same_as<T, std::string>, std::string, HXValue::Binary>;

/// @param content  What was published.
/// @param bytes    Its bytes where it has some, and room behind them; afterwards perhaps those of the value before.
/// @param value    Changed when the state is Present.
/// @return How it stands with it, for who wants a T.
template <Viewable T>
State take(const Content& content, Raw<T>& bytes, T& value) noexcept(Scalar<T>) {
  const Kind kind = Kind::of(content.kind);
  if (kind.state != State::Present) return std::min(kind.state, State::Busy);
  if constexpr (Scalar<T>) {
    if (kind.type != typeOf<T>()) return State::OtherType;
    decode(content.bits, value);
    return State::Present;
  } else if constexpr (std::same_as<T, Raw<T>>) {
    if (kind.type != (std::same_as<T, std::string> ? HXValue::Type::String : HXValue::Type::Binary))
      return State::OtherType;
    bytes.resize(kind.size);
    value.swap(bytes);
    return State::Present;
  } else if constexpr (FixedList<T> || List<T>) {
    // What was seen last stays to be shown when the fifth of six elements is none.
    T decoded;  // NOLINT(cppcoreguidelines-pro-type-member-init): filled, or not used.
    if (!decode(kind, std::span(bytes).first(kind.size), decoded)) return State::OtherType;
    value.swap(decoded);
    return State::Present;
  } else {
    return decode(kind, std::span(bytes).first(kind.size), value) ? State::Present : State::OtherType;
  }
}

/// One reader's hold on what was opened: it stays where it is until the reader moves on, so nothing is unmapped under
/// it.
///
/// @par Threads  One at a time. Copies are independent.
class HX_API Watch {
 public:
  /// @param opened  What is watched.
  explicit Watch(std::shared_ptr<Opened> opened);
  /// Shares all but the bell, of which each has one of its own once it waits.
  Watch(const Watch& other);
  Watch(Watch&&) noexcept = default;
  Watch& operator=(const Watch& other);
  Watch& operator=(Watch&&) noexcept = default;
  ~Watch() = default;

  bool hasMoved() const noexcept { return opened_->standing() != standing_; }
  /// Follows.
  /// @return Whether there is a broker that was not there before.
  bool move() noexcept;
  bool isThere() const noexcept {
    return Opened::isThere(standing_) && place_->mapping->head().ended.load(std::memory_order_relaxed) == 0;
  }
  std::uint64_t standing() const noexcept { return standing_; }
  const Place& place() const noexcept { return *place_; }

  /// @param written  When a value was.
  /// @return When the broker was last seen to run.
  std::uint64_t lastAlive(std::uint64_t written) const noexcept {
    return std::max(place_->mapping->head().beat.load(std::memory_order_relaxed), written);
  }
  /// @param written  As above.
  /// @param limit    Since then.
  /// @return Whether it runs.
  bool isAlive(std::uint64_t written, std::chrono::milliseconds limit) const noexcept {
    return !hasMoved() && isThere() && isWithin(monotonicRecently(), lastAlive(written), limit);
  }
  /// Sleeps until the sequence is beyond a revision, or the broker ends or comes back, which is left to be seen.
  /// @param revision  What was seen.
  /// @param limit     How long at most.
  /// @return Whether one of these is so.
  /// @throws As `Opened::newBell`.
  bool wait(std::uint64_t revision, std::chrono::milliseconds limit);

 private:
  std::shared_ptr<Opened> opened_;
  std::uint64_t standing_;  // Asked for before the place: the other order could keep an old one with a new number.
  std::shared_ptr<const Place> place_;
  std::shared_ptr<Word> bell_;
  std::uint64_t bellStanding_ = 0;
};

}  // namespace HX::view
