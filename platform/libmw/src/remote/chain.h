#pragma once

#include "../runtime/callerscope.h"

#include <compare>
#include <cstdint>
#include <functional>
#include <memory>
#include <utility>

namespace mw::remote {

class Channel;

/// Names the thread that a chain of calls began on: the process and the thread in it.
struct Caller {
  std::uint64_t endpoint = 0;
  std::uint32_t thread = 0;
  auto operator<=>(const Caller&) const = default;
  explicit operator bool() const { return endpoint != 0; }
};

/// A place in a chain of calls. A call that is made while another one is served belongs to the same chain, one step
/// deeper; so the processes that a chain goes through act for it like one thread.
///
/// The process of a thread that waits for an answer may be called back by the very call that it waits for. Were
/// another thread to serve that, it would meet the locks that the waiting one holds, and both would wait for ever. So
/// the waiting thread serves the calls of its chain itself.
struct Chain {
  Caller caller;
  std::uint32_t depth = 0;
};

/// A part of a process that is called into by a way of its own: a session. A chain may go through several of them in
/// one process, and each has its own waiting thread.
using Domain = const void*;

/// No chain goes deeper: each step takes stack in some process.
inline constexpr std::uint32_t kDeepestChain = 256;

/// The id of this process among all that are connected; never 0.
std::uint64_t thisEndpoint();

/// The chain for a call that the calling thread makes now. From then on, the thread serves its chain while it waits for
/// futures.
/// @throws std::runtime_error beyond `kDeepestChain`.
Chain chainOfThisThread();

/// While one lives, the calling thread works for `chain`, in `domain`.
class Serving {
 public:
  /// @param relays  The thread hands the call on to another process, and does not wait for the answer.
  Serving(const Chain& chain, Domain domain, bool relays = false);
  Serving(const Serving&) = delete;
  Serving& operator=(const Serving&) = delete;
  ~Serving();

 private:
  const Chain outer_;
  const Domain outerDomain_;
  const bool outerRelays_;
  const mw::detail::CallerScope caller_;
};

/// Has the thread that waits, or is about to, within the chain of `caller`, in `domain`, run `task`; the innermost one,
/// when several wait.
/// @return False, with `task` untouched, when no thread does.
bool runInChain(const Caller& caller, Domain domain, std::function<void()>& task);

class Inbox;
using Place = std::pair<Caller, Domain>;

/// Held from before a call is sent until it is answered: calls of the chain that come meanwhile are kept for the
/// calling thread.
class Expectation {
 public:
  Expectation() = default;
  Expectation(const Place& place, std::shared_ptr<Inbox> inbox);
  Expectation(Expectation&& other) noexcept = default;
  Expectation& operator=(Expectation&& other) noexcept {
    std::swap(place_, other.place_);
    std::swap(inbox_, other.inbox_);
    return *this;
  }
  ~Expectation();

  explicit operator bool() const { return inbox_ != nullptr; }

 private:
  Place place_;
  std::shared_ptr<Inbox> inbox_;
};

/// What a thread does once it has made a call.
enum class Calling : std::uint8_t {
  Waits,    ///< For the answer, at once.
  MayWait,  ///< It is not known.
  GoesOn,   ///< It makes more calls first, which leave together.
};

/// The calling thread is about to send a call on `channel`: when it waits, it may read the answer itself. Unless it
/// goes on, calls of the chain that come before it does are kept for it. `chainOfThisThread` comes first.
Expectation expectAnswer(const std::shared_ptr<Channel>& channel, Domain domain, Calling then);

}  // namespace mw::remote
