#pragma once

#include <atomic>
#include <cstdint>

namespace mw::remote {

/// Who reads a channel: one thread at a time, either one of the poller's, which the kernel has told that there is
/// something, or a caller that waits for an answer.
///
/// The kernel tells the poller of what comes where the state says so ("told"), once for each thing that comes, and of
/// what lies there already whenever the telling begins anew. It does not while a caller reads, or is about to: the
/// answer would wake a thread for nothing. Who was told and does not get the turn forgets it, so whoever has the turn
/// sees to what came meanwhile.
///
/// | state       | who reads            | told | next                                                               |
/// |-------------|----------------------|------|--------------------------------------------------------------------|
/// | Watched     | nobody               | yes  | beginPoller → Poller; claim → Claimed *; beginCaller → Caller *    |
/// | Poller      | the poller           | yes  | beginPoller → PollerAgain; endPoller, leavePoller * → Watched       |
/// | PollerAgain | the poller, then once more | yes | endPoller → Poller; leavePoller → Watched *                    |
/// | Claimed     | a caller, soon       | no   | beginClaimed → Caller; park → Parked                               |
/// | Caller      | a caller             | no   | park → Parked                                                      |
/// | Parked      | nobody               | no   | claim → Claimed; beginCaller → Caller; watch, lapse → Watched *    |
///
/// What stands nowhere in a line is refused. The marked ones (*) change what the kernel is to tell: whoever makes one
/// sets that afterwards, to what the state says by then. A socket stays parked until somebody calls again, somebody
/// expects something else, or it has lapsed.
///
/// @par Threads  Any; each transition is one step.
class ReadingTurn {
 public:
  enum class State : std::uint8_t { Watched, Poller, PollerAgain, Claimed, Caller, Parked };
  enum class Step : std::uint8_t {
    Refused,
    Taken,
    TakenAndMarked,  ///< What the kernel tells is to be set anew.
  };

  ReadingTurn() = default;
  /// As another one is at that moment.
  explicit ReadingTurn(std::uint32_t moment) noexcept : word_(moment) {}

  State state() const noexcept { return stateOf(word_.load()); }
  bool isTold() const noexcept { return state() <= State::PollerAgain; }

  /// @return Whether the calling thread reads. Otherwise whoever does looks again.
  bool beginPoller() noexcept {
    for (auto word = word_.load();;) {
      const bool isFree = stateOf(word) == State::Watched;
      if (!isFree && stateOf(word) != State::Poller) return false;
      if (change(word, isFree ? State::Poller : State::PollerAgain)) return isFree;
    }
  }
  /// All that was there has been read. @return False when something has come meanwhile: the thread reads again.
  bool endPoller() noexcept {
    for (auto word = word_.load();;) {
      const bool isLast = stateOf(word) == State::Poller;
      if (change(word, isLast ? State::Watched : State::Poller)) return isLast;
    }
  }
  /// The thread does not read on, although there may be more. Always marked.
  void leavePoller() noexcept {
    for (auto word = word_.load(); !change(word, State::Watched);) continue;
  }

  Step claim() noexcept { return beginFree(State::Claimed); }
  Step beginCaller() noexcept { return beginFree(State::Caller); }
  void beginClaimed() noexcept {
    for (auto word = word_.load(); !change(word, State::Caller);) continue;
  }
  /// Of the thread that has claimed, or reads.
  void park() noexcept {
    for (auto word = word_.load(); !change(word, State::Parked);) continue;
  }

  Step watch() noexcept { return lapse(word_.load()); }
  /// Names this time of being parked, or whatever else it is.
  std::uint32_t moment() const noexcept { return word_.load(); }
  /// @param since  Ends the time of being parked that it names.
  Step lapse(std::uint32_t since) noexcept {
    return stateOf(since) == State::Parked && change(since, State::Watched) ? Step::TakenAndMarked : Step::Refused;
  }

 private:
  static constexpr std::uint32_t kStates = 8;
  static State stateOf(std::uint32_t word) noexcept { return static_cast<State>(word % kStates); }

  /// Each change makes another word, so that two times of being parked differ.
  bool change(std::uint32_t& from, State to) noexcept {
    const std::uint32_t next = (from / kStates + 1) * kStates + static_cast<std::uint32_t>(to);
    return word_.compare_exchange_strong(from, next);
  }
  Step beginFree(State to) noexcept {
    for (auto word = word_.load();;) {
      const State state = stateOf(word);
      if (state != State::Watched && state != State::Parked) return Step::Refused;
      if (change(word, to)) return state == State::Watched ? Step::TakenAndMarked : Step::Taken;
    }
  }

  std::atomic<std::uint32_t> word_{0};
};

}  // namespace mw::remote
