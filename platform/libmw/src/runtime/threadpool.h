#pragma once

#include <hxerror/mutex.h>
#include <libmw/eventloop.h>
#include <libmw/trackable.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <optional>
#include <thread>
#include <vector>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

namespace mw::detail {

/// The threads and queues behind an EventLoop.
///
/// Two Asio contexts: `work_` is the queue of functions, run by the workers; `service_` is run by one thread of its
/// own and holds the timers and the monitor, so that delays end, growth happens and stalls are seen although every
/// worker may be blocked. No foreign function runs on the service thread, except what the destructor of a dropped
/// function does.
///
/// Each thread owns the pool, so that a function may destroy its own loop.
///
/// A thread that serves connections may be lent, for a function that it would have to wake a worker for: it counts as
/// one of the pool's meanwhile, though not as a worker. What is left to it is drained like all else, and is no reason
/// to have more workers.
///
/// The monitor is armed by a post() that finds more functions outstanding than there are workers, and ticks until
/// nothing is queued. A tick without a function started since the one before means that all workers are blocked.
class ThreadPool : public std::enable_shared_from_this<ThreadPool> {
 public:
  explicit ThreadPool(EventLoop::Options options);
  ThreadPool(const ThreadPool&) = delete;
  ThreadPool& operator=(const ThreadPool&) = delete;

  void start();

  bool post(std::function<void()> function);
  bool postAfter(std::function<void()> function, std::chrono::nanoseconds delay);
  bool postAfterServing(std::function<void()> function);

  bool isInThisPool() const noexcept;
  void drain();
  void stop();

  /// Waits for the threads of a stopped pool to end, except the calling one, which is let go.
  ///
  /// @param timeout  None waits without limit.
  /// @return False when it passed. Those that still run are let go.
  bool join(std::optional<std::chrono::milliseconds> timeout);

  std::size_t workerCount() const noexcept { return workers_.load(); }

 private:
  using Context = boost::asio::io_context;
  using WorkGuard = boost::asio::executor_work_guard<Context::executor_type>;
  using Clock = std::chrono::steady_clock;

  void startThread(void (ThreadPool::*body)());
  void startWorker();
  void runStayingWorker();
  void runWorker();
  void runService();
  void threadEnded();
  bool mayRetire();

  void execute(std::function<void()>& function);
  void executeLent(std::function<void()>& function);
  void run(std::function<void()>& function);
  void oneDone(std::uint64_t which);

  std::size_t queued() const noexcept;
  std::size_t forWorkers() const noexcept { return outstanding_.load() % kLeftToOthers; }
  bool isOverloaded() const noexcept { return forWorkers() > workers_.load(); }
  void armMonitor();
  void scheduleTick();
  void tick();
  void noteProgress();
  void handleStall();

  const EventLoop::Options options_;
  CallGate accepting_;  // around every entry to the queues; closed by stop()

  // Functions queued or running: in the lower half those for the workers, in the upper one those left to threads of
  // others. In one piece, so that who drains sees a moment at which there are none of either.
  static constexpr std::uint64_t kForWorkers = 1;
  static constexpr std::uint64_t kLeftToOthers = std::uint64_t{1} << 32U;
  std::atomic<std::uint64_t> outstanding_{0};
  std::atomic<std::size_t> running_{0};  // by workers
  std::atomic<std::size_t> workers_{0};
  std::atomic<std::uint64_t> started_{0};  // functions that workers have ever started
  std::atomic<bool> isStopped_{false};
  std::atomic<bool> isMonitorArmed_{false};

  Context work_;
  std::unique_ptr<Context> service_;  // destroyed by join(), with the timers that have not fired

  // Used on the service thread only.
  std::optional<boost::asio::steady_timer> monitorTimer_;
  std::uint64_t startedBefore_ = 0;
  Clock::time_point stalledSince_;
  bool isStallReported_ = false;

  HX::Mutex mutex_;
  std::condition_variable changed_;  // a thread ended, or nothing is outstanding
  std::optional<WorkGuard> workGuard_ HX_GUARDED_BY(mutex_);
  std::optional<WorkGuard> serviceGuard_ HX_GUARDED_BY(mutex_);
  std::map<std::thread::id, std::thread> threads_ HX_GUARDED_BY(mutex_);
  std::vector<std::thread> ended_ HX_GUARDED_BY(mutex_);  // to be joined
  std::size_t lent_ HX_GUARDED_BY(mutex_) = 0;            // threads of others that run a function
};

}  // namespace mw::detail
