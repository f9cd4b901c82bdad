#pragma once

#include "chain.h"

#include <functional>
#include <memory>
#include <utility>

namespace mw::detail {
class FutureStateBase;
}

namespace mw::remote {

class Channel;
class Inbox;

/// From now on the calling thread serves its chain while it waits for futures.
HX_API void serveWhileWaiting();

/// Has the thread that waits, or is about to, within the chain of `caller`, in `domain`, run `task`; the innermost one,
/// when several wait.
/// @return False, with `task` untouched, when no thread does.
HX_API bool runInChain(const Caller& caller, Domain domain, std::function<void()>& task);

/// Where a thread is waited for, or waits.
using WaitingPlace = std::pair<Caller, Domain>;

/// Held from before a call is sent until it is answered: calls of the chain that come meanwhile are kept for the
/// calling thread.
class HX_API Expectation {
 public:
  Expectation() = default;
  Expectation(const WaitingPlace& place, std::shared_ptr<Inbox> inbox);
  Expectation(Expectation&& other) noexcept = default;
  Expectation& operator=(Expectation&& other) noexcept {
    std::swap(place_, other.place_);
    std::swap(inbox_, other.inbox_);
    return *this;
  }
  ~Expectation() {
    if (inbox_) end();
  }

 private:
  void end();

  WaitingPlace place_;
  std::shared_ptr<Inbox> inbox_;
};

/// What a thread does once it has made a call.
enum class Calling : std::uint8_t {
  Waits,    ///< For the answer, at once: in the scope of an `AboutToWait`.
  MayWait,  ///< It is not known.
  MakesMore,
};

/// The calling thread is about to make a call on `channel`: when it waits, it may read the answer itself. Unless it
/// makes more calls first, those of the chain that come before it waits are kept for it. `chainOfThisThread` comes
/// first.
/// @param answer  Of which the thread will wait, where it does so at once.
HX_API Expectation expectAnswer(const std::shared_ptr<Channel>& channel, Domain domain, Calling then,
                                const detail::FutureStateBase& answer);
/// The call is written, and about to be sent: where the thread waits at once, no other begins to read the channel. On a
/// busy processor the answer is there before the sender runs again, and would wake another thread as well.
/// @return Whether the thread has the turn to read.
HX_API bool beginReadingAnswer();

}  // namespace mw::remote
