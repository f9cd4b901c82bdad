#pragma once

#include <atomic>
#include <cstdint>

namespace mw::remote {

/// Who reads a channel: one thread at a time, either one of the poller's, which the kernel has told that there is
/// something, or one that has the channel for itself: a caller that waits for an answer, or who reads a long message
/// on.
///
/// The kernel tells the poller of what comes where the state says so ("told"), once for each thing that comes, and of
/// what lies there already whenever the telling begins anew. It does not while one thread has the channel for itself:
/// each piece would wake another for nothing. Who was told and does not get the turn forgets it, so whoever has the
/// turn sees to what came meanwhile.
///
/// | state       | who reads                  | told | next                                                     |
/// |-------------|----------------------------|------|----------------------------------------------------------|
/// | Watched     | nobody                     | yes  | beginPoller → Poller; begin → Held *                     |
/// | Poller      | the poller                 | yes  | beginPoller → PollerAgain; endPoller → Watched;          |
/// |             |                            |      | leavePoller → Watched *; hold → Held *                   |
/// | PollerAgain | the poller, then once more | yes  | endPoller → Poller; leavePoller → Watched *;             |
/// |             |                            |      | hold → Held *                                            |
/// | Held        | who has it for itself      | no   | park → Parked; leavePoller → Watched *                   |
/// | Parked      | nobody                     | no   | begin → Held; watch → Watched *                          |
///
/// What stands nowhere in a line is refused. The marked ones (*) change what the kernel is to tell: whoever makes one
/// sets that afterwards, to what the state says by then. A channel stays parked until somebody calls again, somebody
/// expects something else, or a while has passed.
///
/// @par Threads  Any; each transition is one step.
class ReadingTurn {
 public:
  enum class State : std::uint8_t { Watched, Poller, PollerAgain, Held, Parked };
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
  /// The thread of the poller that reads has the channel for itself from now on. Always marked.
  void hold() noexcept { state_ = State::Held; }

  Step begin() noexcept {
    for (State now = state_;;) {
      if (now != State::Watched && now != State::Parked) return Step::Refused;
      if (state_.compare_exchange_weak(now, State::Held)) {
        return now == State::Watched ? Step::TakenAndMarked : Step::Taken;
      }
    }
  }
  /// Of the thread that has it for itself.
  void park() noexcept { state_ = State::Parked; }

  Step watch() noexcept {
    State parked = State::Parked;
    return state_.compare_exchange_strong(parked, State::Watched) ? Step::TakenAndMarked : Step::Refused;
  }

 private:
  std::atomic<State> state_{State::Watched};
};

}  // namespace mw::remote
