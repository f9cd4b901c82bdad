#pragma once

#include <hxerror/api.h>
#include <libmw/future.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

namespace mw {

namespace detail {
class ThreadPool;
}

/// A queue of functions and the pool of threads that run them.
///
/// Functions start in the order posted and run in parallel. A function may block: when all threads are busy and
/// queued work does not start, the pool adds a thread, up to a limit, so that work which others wait for inside the
/// pool still runs. Work that waits at the limit is reported in the log (category "mw.eventloop"), once per
/// episode. Threads beyond the initial ones end after they were idle for a while.
///
/// A function that throws is logged as an error and otherwise forgotten; async() keeps the exception in its future.
///
/// Safe from any thread. The destructor stops and joins; destroyed from a function that it runs, the loop lets go
/// of that thread, which ends when the function returns.
class HX_API EventLoop {
 public:
  struct Options {
    std::string name = "loop";                      ///< In log records, and as the name of the threads.
    std::size_t minThreads = 0;                     ///< Kept alive; 0 takes the number of processors, at least 4.
    std::size_t maxThreads = 128;                   ///< Never more than these; raised to minThreads when smaller.
    std::chrono::milliseconds growAfter{5};         ///< Queued work has not started for so long: one thread more.
    std::chrono::milliseconds idleTimeout{10'000};  ///< An extra thread ends after so long without work.
    std::chrono::milliseconds stallWarning{5'000};  ///< At the limit, work not started for so long is reported.
  };

  EventLoop();
  explicit EventLoop(Options options);
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;
  ~EventLoop();

  /// Queues `function`; never runs it in the caller.
  ///
  /// @return False when the loop has been stopped: `function` is then destroyed and never runs.
  bool post(std::function<void()> function);

  /// Queues `function` once `delay` has passed on the steady clock; zero and less mean at once. It may take up to a
  /// sixty-fourth longer, so that what is done about then wakes the process once.
  bool post(std::function<void()> function, std::chrono::nanoseconds delay);

  /// As `post`, for what follows from the last thing that a call or a delivery of another process does here: the thread
  /// that serves it runs `function` itself when it is done with that, as one of the loop's, and nobody has to be woken.
  /// What the call still does until then, `function` waits for; where the thread goes on to another call, or waits
  /// after one that it served meanwhile, a thread of the default loop runs it. On threads that serve nobody it is
  /// `post`.
  ///
  /// @param function  As for `post`. It may be copied.
  /// @return False when the loop has been stopped: `function` is then destroyed and never runs.
  bool postAfterServing(std::function<void()> function);

  /// Queues `function` and gives its result. A result that is a future itself is not wrapped in another.
  ///
  /// Cancelling the future before the function starts keeps it from running; later it changes nothing. When the
  /// loop is stopped first, the future fails with FutureError::Kind::NoState.
  template <class F>
  auto async(F&& function, std::chrono::nanoseconds delay = {}) -> Future<detail::UnwrappedResult<F>>;

  /// Whether the calling thread is one of this loop's.
  bool isInThisLoop() const noexcept;

  /// Waits for a moment at which nothing is queued or running, what running functions post included. Functions
  /// whose delay has not passed do not count.
  ///
  /// @throws std::logic_error from a thread of this loop, which would wait for itself.
  void drain();

  /// Accepts nothing any more and drops what has not started; running functions go on. Does not wait for them.
  /// Futures of dropped functions fail on a thread of the loop or in join(). May be repeated.
  void stop();

  /// Waits until a stopped loop's threads have ended. Stops the loop first if nobody has.
  ///
  /// @throws std::logic_error from a thread of this loop.
  void join();

  /// The number of threads at this moment. For tests and diagnosis.
  std::size_t threadCount() const noexcept;

 private:
  friend EventLoop& defaultLoop();
  std::shared_ptr<detail::ThreadPool> pool_;
};

/// The loop that asynchronous continuations and the middleware's own work run on.
///
/// Started on first use. At the end of the process it is stopped, and running functions get two seconds to
/// return; what still runs then is reported and left alone, so that a blocked function cannot keep the process.
HX_API EventLoop& defaultLoop();

template <class F>
auto EventLoop::async(F&& function, std::chrono::nanoseconds delay) -> Future<detail::UnwrappedResult<F>> {
  Promise<void> start;
  auto result = start.future().andThen(std::forward<F>(function), FutureCallbackType::Sync);
  post([start]() mutable { start.trySetValue(); }, delay);
  return result;
}

}  // namespace mw
