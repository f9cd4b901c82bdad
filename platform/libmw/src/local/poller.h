#pragma once

#include "../remote/channel.h"

#include <hxerror/mutex.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <unordered_map>
#include <utility>
#include <vector>

namespace mw::local {

/// A file of the system, closed when it goes, and in processes that this one forks.
class HX_API File {
 public:
  File() = default;
  explicit File(int number) noexcept;
  File(File&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  File& operator=(File&& other) noexcept {
    std::swap(number_, other.number_);
    return *this;
  }
  ~File();

  int number() const noexcept { return number_; }
  explicit operator bool() const noexcept { return number_ >= 0; }

 private:
  int number_ = -1;
};

/// Something with a socket.
class Pollable {
 public:
  virtual ~Pollable() = default;
  /// The socket is ready. Must not wait. More than one thread may be in it: what comes while one reads is told to
  /// another.
  /// @param events  As epoll_ctl(2) says them.
  /// @param works   Takes what is to be done for what came.
  virtual void onReady(std::uint32_t events, std::vector<remote::Work>& works) = 0;
  /// The time of a reminder has come. Must not wait.
  virtual void onTimer() {}
};

/// Watches the sockets of the process, and has threads for what comes.
///
/// The kernel elects who reads: all threads wait on one epoll set, and each event wakes one of them, the one that came
/// last, whose caches are warm. It reads, and does itself the first of what there is to do, so that a call costs no
/// hand-over between threads. Before that it sees that another one waits, and starts one where none does: calls may
/// take or block as many threads as they like, reading and accepting never wait for them.
///
/// @par Threads  Any. The first are started with the first socket. How many there are at most is bounded by those who
///   hand over work: what a link runs is limited there.
class HX_API Poller {
 public:
  using Clock = std::chrono::steady_clock;

  /// The one of the process.
  static Poller& instance();

  Poller();
  Poller(const Poller&) = delete;
  Poller& operator=(const Poller&) = delete;
  /// Not to be reached while threads are in it: `stop` comes first.
  ~Poller() = default;

  /// Begins to watch `socket`, for nothing yet.
  /// @return The number to name it by. @throws std::system_error
  std::uint64_t add(int socket, const std::weak_ptr<Pollable>& owner);
  /// Watches for `events` from now on, and tells at once of those that hold already. The end of the peer is always
  /// among them.
  /// @param events  Of epoll_ctl(2), with EPOLLET or EPOLLONESHOT: what is told again and again wakes all threads.
  void watch(std::uint64_t number, int socket, std::uint32_t events);
  /// Ends the watching. `onReady` may still be running.
  void remove(std::uint64_t number, int socket);

  /// Has `onTimer` of a socket called at `due` or before. One timer serves all reminders: it is set when the earliest
  /// of them gets earlier, and else renewed only when it fires.
  /// @return False when it will not be, because the process ends.
  bool remind(std::uint64_t number, Clock::time_point due);

  /// Has works done by other threads. Empty afterwards.
  void post(std::vector<remote::Work>& works);

  /// Ends the threads, and waits for them a while. What is reminded of is done before.
  void stop();

  /// For tests and diagnosis.
  std::size_t threadCount() const;

 private:
  class AtExit;
  enum class Told : std::uint8_t { Socket, Works, Timer, End, Nothing };

  Told waitOnce(std::vector<remote::Work>& works);
  void runThread();
  bool leaveWaiting();
  bool startThread();
  bool mayRetire();
  void run(remote::Work& work);
  remote::Work takePosted();
  void wake();
  void fireTimer();
  void setTimerLocked(Clock::time_point due) HX_REQUIRES(mutex_);
  std::shared_ptr<Pollable> find(std::uint64_t number) const;

  const File epoll_;
  const File wakeUp_;
  const File timer_;
  const File end_;

  /// Threads that wait for events, or are on their way to. One that is started counts at once.
  std::atomic<std::size_t> waiting_{0};
  std::atomic<std::size_t> postedCount_{0};

  mutable HX::Mutex socketsMutex_;
  std::uint64_t lastNumber_ HX_GUARDED_BY(socketsMutex_);
  std::unordered_map<std::uint64_t, std::weak_ptr<Pollable>> sockets_ HX_GUARDED_BY(socketsMutex_);

  mutable HX::Mutex mutex_;
  std::condition_variable changed_;
  std::deque<remote::Work> posted_ HX_GUARDED_BY(mutex_);
  std::unordered_map<std::uint64_t, Clock::time_point> reminders_ HX_GUARDED_BY(mutex_);
  Clock::time_point timerDue_ HX_GUARDED_BY(mutex_) = Clock::time_point::max();
  std::size_t threads_ HX_GUARDED_BY(mutex_) = 0;
  bool stopped_ HX_GUARDED_BY(mutex_) = false;
  bool isShort_ HX_GUARDED_BY(mutex_) = false;  // of threads, which was told
};

}  // namespace mw::local
