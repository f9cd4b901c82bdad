#pragma once

#include <hxerror/api.h>
#include <hxview/clock.h>
#include <hxview/codec.h>
#include <hxview/opened.h>
#include <hxview/watch.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <type_traits>
#include <utility>
#include <vector>

namespace HX {

using ViewState = view::State;

/// How a key is to be viewed.
struct ViewOptions {
  /// Bytes of the largest value: of a text or binary its own, of a list or map those of its MessagePack. A larger one
  /// is not shown, and the state says so. Numbers, bools and arrays of a fixed size need none to be stated.
  std::size_t capacity = 4096;
  /// How soon to know that the broker does not run any more, although it has not ended. The sharper, the more often it
  /// has to say that it does.
  std::chrono::milliseconds aliveWithin{100};
};

/// What a view saw. A value that is not there, or not of this type, is never handed out as one.
///
/// @par Threads  As a standard container. Belongs to the view that it is of, and changes with its next read: copy it to
///   keep it.
template <view::Viewable T>
class Seen {
 public:
  ViewState state = ViewState::Absent;
  /// Of this key as this broker shows it, not the journal's: rises with every write, also of an equal value; never
  /// falls in one view, but begins anew with a broker that was restarted. 0: nothing has been seen yet.
  std::uint64_t revision = 0;
  /// The broker was restarted, or lost and found again, since the read before.
  bool isReconnected = false;

  bool isPresent() const noexcept { return state == ViewState::Present; }
  /// @return The value. @throws std::runtime_error that says the state, unless it is Present.
  const T& value() const {
    if (!isPresent()) view::failNoValue(state);
    return value_;
  }
  /// The last one that was seen whatever has become of it, for display; a T that is empty when there was none.
  const T& last() const noexcept { return value_; }
  /// How long ago it was written; or, when there is no value, since when that is so. Asks the clock now.
  /// @return Of a broker in another time namespace, nobody knows.
  std::chrono::nanoseconds age() const noexcept { return view::since(written_); }
  /// The one line that a loop needs: there is a value, it is no older than this, and the broker that would have written
  /// a newer one runs. Asks the clock now; of what was read long ago it says that it is not.
  /// @param limit  Of the age.
  /// @return Whether all of it holds.
  bool isFresh(std::chrono::milliseconds limit) const noexcept {
    if (!isPresent()) return false;
    const std::uint64_t now = view::monotonicNow();
    return view::isWithin(now, written_, limit) && view::isWithin(now, alive_, aliveWithin_);
  }

 private:
  template <view::Viewable>
  friend class View;
  template <view::Viewable>
  friend class Stream;

  T value_{};
  std::uint64_t written_ = 0;
  std::uint64_t alive_ = 0;  ///< When the broker was last known to run.
  std::chrono::milliseconds aliveWithin_{100};
};

/// Reads a key of the memory, wherever that runs on this machine, at the speed of memory: without a system call, and
/// without waking anybody. Made by `memory().view<T>(key)`.
///
///     auto speed = memory().view<float>("Arm/Speed");
///     …
///     const auto& seen = speed.read();
///     motor.set(seen.isFresh(50ms) ? seen.value() : 0.0F);
///
/// It shows what is there, and does not tell of changes: of several writes between two reads, the last one is seen. It
/// follows the broker through its end and its return by itself. Whoever reads another way too (`getData`) may see a
/// change there a moment before or after he sees it here; in one view revisions never go back.
///
/// @par Threads  One at a time for each view. Copies are independent, and cheap.
template <view::Viewable T>
class View {
 public:
  /// @param opened   As the memory's proxy gives it.
  /// @param options  With which it was opened.
  View(std::shared_ptr<view::Opened> opened, const ViewOptions& options) : watch_(std::move(opened)) {
    seen_.aliveWithin_ = options.aliveWithin;
  }

  /// Looks now. No system call, and for numbers and bools nothing that could fail. The first read that finds nothing
  /// newer, after one that did, takes 0.3 us longer: a loop that does nothing but read does not keep the writer from
  /// writing.
  /// @return What there is. The view's: it changes with the next read.
  const Seen<T>& read() noexcept(view::Scalar<T>) {
    seen_.isReconnected = false;
    if (watch_.hasMoved()) [[unlikely]]
      seen_.isReconnected = watch_.move();
    if (!watch_.isThere()) [[unlikely]]
      return failed(ViewState::Disconnected);
    if constexpr (view::Scalar<T>) {
      return readCell();
    } else {
      return readRing();
    }
  }

  /// Whether the broker runs: not whether anything was written. A key that is written often proves it by itself.
  /// @param limit  How long ago it may have been seen to. Below a tick of the system's clock (4 or 10 ms) it is of no
  ///               use, and below what the view was opened with it may be false of a broker that does run.
  /// @return False also when it has ended.
  bool alive(std::chrono::milliseconds limit = std::chrono::milliseconds(100)) const noexcept {
    return watch_.isAlive(seen_.written_, limit);
  }

  /// Sleeps until something newer than a revision is there, or the broker ends or comes back.
  /// @param revision  Of what was read last; 0 for anything at all.
  /// @param limit     How long at most.
  /// @return False when there is nothing newer.
  /// @throws std::runtime_error when the broker lets no more wait.
  bool wait(std::uint64_t revision, std::chrono::milliseconds limit) { return watch_.wait(revision, limit); }

 private:
  const Seen<T>& failed(ViewState state) noexcept {
    seen_.state = state;
    return seen_;
  }
  const Seen<T>& readCell() noexcept {
    view::Look look;
    for (int tries = 0; tries < view::kTries; ++tries) {
      const view::Outcome outcome = view::look(*watch_.place().cell, watch_.place().owner, look);
      if (outcome == view::Outcome::Gone) return failed(ViewState::Disconnected);
      if (outcome != view::Outcome::Whole) continue;
      if (look.sequence == seen_.revision && standBack()) continue;
      return take(look.sequence, look.content);
    }
    return failed(ViewState::Busy);
  }
  const Seen<T>& readRing() {
    view::Content content;
    watch_.place().ring.expect(seen_.revision + 1);
    for (int tries = 0; tries < view::kTries; ++tries) {
      const std::uint64_t latest = watch_.place().ring.latest();
      // Read already: it is not copied again, but the broker may have shown since that it runs.
      if (latest == seen_.revision && latest != 0 && known_ == watch_.standing()) {
        if (standBack()) continue;
        seen_.state = state_;
        seen_.alive_ = watch_.lastAlive(seen_.written_);
        return seen_;
      }
      const view::Outcome outcome = watch_.place().ring.look(latest, content, bytes_);
      if (outcome == view::Outcome::Gone) return failed(ViewState::Disconnected);
      if (outcome == view::Outcome::Whole) return take(latest, content);
    }
    return failed(ViewState::Busy);
  }
  /// The read before found something new, and this one nothing newer: a loop that does nothing but read. It would take
  /// the line from the writer between any two writes, each of which has to wait for it then.
  /// @return Whether it has let the writer have it for a moment, and is to look again.
  bool standBack() noexcept {
    if (!isNew_) [[likely]]
      return false;
    isNew_ = false;
    view::standBack();
    return true;
  }
  const Seen<T>& take(std::uint64_t revision, const view::Content& content) noexcept(view::Scalar<T>) {
    isNew_ = revision != seen_.revision;
    seen_.revision = revision;
    seen_.written_ = content.written;
    seen_.alive_ = watch_.lastAlive(content.written);
    state_ = seen_.state = view::take(content, bytes_, seen_.value_);
    known_ = watch_.standing();
    return seen_;
  }

  view::Watch watch_;
  Seen<T> seen_;
  view::Raw<T> bytes_;
  std::uint64_t known_ = 0;  // The standing for which `seen_` is the latest.
  ViewState state_ = ViewState::Absent;
  bool isNew_ = false;  // What the last read found.
};

/// What came out of a stream.
enum class ReadResult : std::uint8_t {
  Value,        ///< The next one.
  Nothing,      ///< All have been read.
  Lost,         ///< Some were overwritten before they were read: `Stream::lost` says how many. Go on.
  Reconnected,  ///< The broker is back; what was written meanwhile is unknown. Go on.
  Ended,        ///< All have been read, and the broker has gone. There may be more once it is back.
};

/// Every value that is written under a key, oldest first, at the speed of memory. Made by `memory().stream<T>(key,
/// depth)`. The first one is the value that is there at the beginning. The writer waits for nobody: who reads too
/// slowly is told how many were lost.
///
/// @par Threads  One at a time for each stream. Copies go on independently.
template <view::Viewable T>
class Stream {
 public:
  using Item = Seen<T>;

  /// @param opened   As the memory's proxy gives it.
  /// @param options  With which it was opened.
  Stream(std::shared_ptr<view::Opened> opened, const ViewOptions& options)
      : watch_(std::move(opened)), aliveWithin_(options.aliveWithin) {
    next_ = std::max<std::uint64_t>(watch_.place().ring.latest(), 1);
  }

  /// @param into  Where the next one goes; its memory is used again. As it was when there is none.
  /// @return What there was.
  ReadResult next(Item& into) {
    const view::RingReader& ring = watch_.place().ring;
    while (true) {
      const std::uint64_t latest = ring.latest();
      if (latest < next_) return atEnd();
      if (latest - next_ >= ring.depth()) return skipTo(latest - ring.depth() + 1);
      view::Content content;
      const view::Outcome outcome = ring.look(next_, content, bytes_);
      if (outcome == view::Outcome::Torn) continue;  // Overtaken since: it is counted now.
      if (outcome == view::Outcome::Gone) return ReadResult::Ended;
      into.revision = next_++;
      into.written_ = content.written;
      into.alive_ = watch_.lastAlive(content.written);
      into.aliveWithin_ = aliveWithin_;
      into.state = view::take(content, bytes_, into.value_);
      return ReadResult::Value;
    }
  }

  /// @param into  As many as there are places, at most.
  /// @return How many came; what came behind them, `next` says.
  std::size_t read(std::span<Item> into) {
    std::size_t count = 0;
    while (count < into.size() && next(into[count]) == ReadResult::Value) ++count;
    return count;
  }

  /// How many values have been lost in all, exactly, but for those while there was no broker.
  std::uint64_t lost() const noexcept { return lost_; }

  /// Sleeps until there is something to read, or the broker ends or comes back.
  /// @param limit  How long at most.
  /// @return False when there is not.
  /// @throws std::runtime_error when the broker lets no more wait.
  bool wait(std::chrono::milliseconds limit) { return watch_.wait(next_ - 1, limit); }

 private:
  ReadResult skipTo(std::uint64_t number) noexcept {
    lost_ += number - next_;
    next_ = number;
    return ReadResult::Lost;
  }
  ReadResult atEnd() {
    if (watch_.hasMoved() && watch_.move()) {
      next_ = std::max<std::uint64_t>(watch_.place().ring.latest(), 1);
      return ReadResult::Reconnected;
    }
    return watch_.isThere() ? ReadResult::Nothing : ReadResult::Ended;
  }

  view::Watch watch_;
  view::Raw<T> bytes_;
  std::uint64_t next_ = 1;
  std::uint64_t lost_ = 0;
  std::chrono::milliseconds aliveWithin_;
};

}  // namespace HX
