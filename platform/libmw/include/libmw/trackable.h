#pragma once

#include <hxerror/api.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

namespace mw {

/// Counts the calls that are running inside something, refuses new ones after close(), and waits for the rest.
///
/// It exists for this race. A thread looks a callback up, finds it, and is about to call it; the owner's destructor
/// runs on another thread, unregisters the callback and frees the owner; the first thread goes on and calls into
/// freed memory. Shared ownership with a weak pointer in the callback closes the window only for owners that are
/// held by shared_ptr, and not yet inside their constructors. With a gate the caller enters before it calls and
/// the destructor, first thing, closes the gate and waits: either the call is seen and waited for, or it sees the
/// gate closed.
///
/// A thread inside a pass may close, drain and even destroy the gate: its own passes are not waited for, because
/// that would be waiting for itself. So a callback may drop the last reference to its owner.
///
/// Protocol. Each counter holds the number of passes in its upper bits and "closed" in its lowest, so that one
/// atomic step both counts the entry and sees whether it is refused; no fence between two variables is needed.
/// Threads are spread over the counters, each on a cache line of its own, so that parallel callers share none.
/// A pass that ends on an open counter touches nothing after the counter; on a closed one it ends under the
/// gate's mutex, so that drain() cannot return, and the gate go away, before the last leaver has let go.
///
/// Safe from any thread. drain() in two threads that each hold a pass of that gate, or of each other's, waits for
/// ever, as any two threads do that wait for each other to end.
class HX_API CallGate {
 public:
  class Token;
  class Pass;

  /// @param counters  How many threads can enter at once without sharing a cache line: 1 for owners of which there
  ///                  are many and which are entered seldom, the default for what is called all the time.
  explicit CallGate(unsigned counters = 16);
  CallGate(const CallGate&) = delete;
  CallGate& operator=(const CallGate&) = delete;
  ~CallGate();  ///< Drains.

  /// Enters; the result is false once the gate is closed. Use as `if (auto pass = gate.enter()) …`.
  Pass enter() const noexcept;

  /// A handle that outlives the gate, for those who may come when it has gone.
  Token token() const noexcept;

  /// Refuses entries from now on. May be repeated.
  void close() noexcept;
  bool isClosed() const noexcept;

  /// Closes, if nobody has, and waits until nobody is inside except the calling thread. May be repeated.
  void drain() noexcept;

  /// As drain(), but gives up after `limit`; zero and less do not wait.
  ///
  /// @return Whether nobody is inside except the calling thread.
  bool drainFor(std::chrono::nanoseconds limit) noexcept;

  /// Whether the calling thread is inside a pass of this gate.
  bool isEnteredByThisThread() const noexcept;

 private:
  class Core;
  friend class Token;
  friend class Pass;
  std::shared_ptr<Core> core_;
};

/// Proof of being inside a gate. Lives on the stack of the thread that entered: it can be neither moved nor shared,
/// and passes end in the reverse of the order in which they began.
class HX_API CallGate::Pass {
 public:
  Pass(const Pass&) = delete;
  Pass& operator=(const Pass&) = delete;
  ~Pass() {
    if (core_) leave();
  }

  explicit operator bool() const noexcept { return core_ != nullptr; }

 private:
  friend class CallGate;
  friend Core;
  explicit Pass(Core* core) noexcept;
  void leave() noexcept;

  Core* core_ = nullptr;  // null: refused
  std::atomic<std::uint64_t>* counter_ = nullptr;
  std::uint64_t entered_ = 0;   // what the counter held then; it mostly still does at the end
  Pass** innermost_ = nullptr;  // the calling thread's list of the passes it is inside of
  Pass* outer_ = nullptr;
  std::shared_ptr<Core> keptAlive_;  // set when the gate is destroyed from inside this pass
};

/// A copyable handle to a gate, which may have gone. An empty one refuses.
class HX_API CallGate::Token {
 public:
  Token() = default;

  /// As CallGate::enter(). The token itself must stay until the pass has ended.
  Pass enter() const noexcept;

  /// Whether entering is refused for good. False may be outdated at once.
  bool isClosed() const noexcept;

 private:
  friend class CallGate;
  explicit Token(std::shared_ptr<Core> core) noexcept : core_(std::move(core)) {}
  std::shared_ptr<Core> core_;
};

/// The lifetime of an object as callbacks see it. A member of the owner; valid from its constructor on.
///
/// ```cpp
/// class Module {
///   Module() { link_ = session.serviceRegistered.connect(lifetime_.track([this](auto& name) { onService(name); })); }
///   ~Module() { lifetime_.destroy(); … }   // first thing: from here on no callback runs
///   Lifetime lifetime_;
/// };
/// ```
class Lifetime {
 public:
  using Token = CallGate::Token;

  Token token() const noexcept { return gate_.token(); }

  /// Wraps `function` so that it runs only while the owner lives, and the owner waits for it to end.
  ///
  /// The wrapper reports whether it ran: it gives std::optional of the result, or a bool when there is none.
  template <class F>
  auto track(F&& function) const;

  /// The same with what to do when the owner has gone: `gone` is called without arguments, and gives a result of
  /// the same type or throws.
  template <class F, class Gone>
  auto track(F&& function, Gone&& gone) const;

  /// Ends the lifetime: wrapped functions do nothing any more; waits for those running on other threads. The first
  /// statement of the owner's destructor, while its members are still whole. May be repeated.
  void destroy() noexcept { gate_.drain(); }
  bool isDestroyed() const noexcept { return gate_.isClosed(); }

 private:
  CallGate gate_{1};
};

template <class F>
auto Lifetime::track(F&& function) const {
  return [token = token(), function = std::forward<F>(function)](auto&&... args) mutable {
    using Result = std::invoke_result_t<std::decay_t<F>&, decltype(args)...>;
    // A copy, because the call may destroy this wrapper together with its owner.
    const Token held = token;  // NOLINT(performance-unnecessary-copy-initialization)
    auto pass = held.enter();
    if constexpr (std::is_void_v<Result>) {
      if (!pass) return false;
      std::invoke(function, std::forward<decltype(args)>(args)...);
      return true;
    } else {
      if (!pass) return std::optional<Result>();
      return std::optional<Result>(std::invoke(function, std::forward<decltype(args)>(args)...));
    }
  };
}

template <class F, class Gone>
auto Lifetime::track(F&& function, Gone&& gone) const {
  return [token = token(), function = std::forward<F>(function),
          gone = std::forward<Gone>(gone)](auto&&... args) mutable -> decltype(auto) {
    using Result = std::invoke_result_t<std::decay_t<F>&, decltype(args)...>;
    const Token held = token;  // NOLINT(performance-unnecessary-copy-initialization)
    auto pass = held.enter();
    if (!pass) return static_cast<Result>(std::invoke(gone));
    return static_cast<Result>(std::invoke(function, std::forward<decltype(args)>(args)...));
  };
}

}  // namespace mw
