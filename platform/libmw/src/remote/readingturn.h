#pragma once

#include <atomic>
#include <cstdint>

namespace mw::remote {

/// Who reads a channel: one thread at a time, either one of the poller's, which the kernel has told that there is
/// something, or a caller that waits for an answer.
///
/// The kernel tells the poller of what comes where the state says so ("told"), once for each thing that comes, and of
/// what lies there already whenever the telling begins anew. It does not while a caller reads: each piece would wake
/// another thread for nothing. Who was told and does not get the turn forgets it, so whoever has the turn sees to what
/// came meanwhile.
///
/// | state       | who reads                  | told | next                                                     |
/// |-------------|----------------------------|------|----------------------------------------------------------|
/// | Watched     | nobody                     | yes  | beginPoller → Poller; begin → Caller *                   |
/// | Poller      | the poller                 | yes  | beginPoller → PollerAgain; endPoller → Watched;          |
/// |             |                            |      | leavePoller → Watched *                                  |
/// | PollerAgain | the poller, then once more | yes  | endPoller → Poller; leavePoller → Watched *              |
/// | Caller      | a caller                   | no   | park → Parked                                            |
/// | Parked      | nobody                     | no   | begin → Caller; watch → Watched *                        |
///
/// What stands nowhere in a line is refused. The marked ones (*) change what the kernel is to tell: whoever makes one
/// sets that afterwards, to what the state says by then. A channel stays parked until somebody calls again, somebody
/// expects something else, or a while has passed.
///
/// @par Threads  Any; each transition is one step.
class ReadingTurn {
 public:
  enum class State : std::uint8_t { Watched, Poller, PollerAgain, Caller, Parked };
  enum class Step : std::uint8_t {
    Refused,
    Taken,
    TakenAndMarked,  ///< What the kernel tells is to be set anew.
  };

  ReadingTurn() = default;
  /// @param state  For tests: as another one is at that moment.
  explicit ReadingTurn(State state) noexcept : state_(state) {}

  State state() const noexcept { return state_; }
  bool isTold() const noexcept { return state() <= State::PollerAgain; }

  /// @return Whether the calling thread reads. Otherwise whoever does looks again.
  bool beginPoller() noexcept {
    for (State now = state_;;) {
      const bool isFree = now == State::Watched;
      if (!isFree && now != State::Poller) return false;
      if (state_.compare_exchange_weak(now, isFree ? State::Poller : State::PollerAgain)) return isFree;
    }
  }
  /// All that was there has been read. @return False when something has come meanwhile: the thread reads again.
  bool endPoller() noexcept {
    for (State now = state_;;) {
      const bool isLast = now == State::Poller;
      if (state_.compare_exchange_weak(now, isLast ? State::Watched : State::Poller)) return isLast;
    }
  }
  /// The thread does not read on, although there may be more. Always marked.
  void leavePoller() noexcept { state_ = State::Watched; }

  Step begin() noexcept {
    for (State now = state_;;) {
      if (now != State::Watched && now != State::Parked) return Step::Refused;
      if (state_.compare_exchange_weak(now, State::Caller)) {
        return now == State::Watched ? Step::TakenAndMarked : Step::Taken;
      }
    }
  }
  void park() noexcept { state_ = State::Parked; }

  Step watch() noexcept {
    State parked = State::Parked;
    return state_.compare_exchange_strong(parked, State::Watched) ? Step::TakenAndMarked : Step::Refused;
  }

 private:
  std::atomic<State> state_{State::Watched};
};

}  // namespace mw::remote
