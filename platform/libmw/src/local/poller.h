#pragma once

#include "../remote/channel.h"

#include <hxerror/mutex.h>
#include <libmw/file.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <unordered_map>
#include <vector>

namespace mw::local {

/// Something with a socket.
class Pollable {
 public:
  virtual ~Pollable() = default;
  /// The socket is ready. Must not wait. More than one thread may be in it: what comes while one reads is told to
  /// another.
  /// @param events  As epoll_ctl(2) says them.
  /// @param works   Takes what is to be done for what came.
  virtual void onReady(std::uint32_t events, std::vector<remote::Work>& works) = 0;
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
  /// The one of the process.
  static Poller& instance();

  /// @param idleTime  How long a thread beyond the two that always wait is kept without work.
  explicit Poller(std::chrono::milliseconds idleTime = std::chrono::seconds(10));
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

  /// Has works done by other threads. Empty afterwards.
  void post(std::vector<remote::Work>& works);

  /// Ends the threads, and waits for them.
  /// @param patience  For so long at most.
  /// @return False when some still run.
  bool stop(std::chrono::milliseconds patience);

  /// For tests and diagnosis.
  std::size_t threadCount() const;

 private:
  void runThread();
  bool waitOnce(std::vector<remote::Work>& works);
  bool leaveWaiting();
  bool startThread();
  bool mayRetire();
  void runAll(std::vector<remote::Work>& works);
  remote::Work takePosted();
  std::shared_ptr<Pollable> find(std::uint64_t number) const;

  const std::chrono::milliseconds idleTime_;
  const File epoll_;
  const File wakeUp_;  // to see what is posted
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
  std::size_t threads_ HX_GUARDED_BY(mutex_) = 0;
  bool stopped_ HX_GUARDED_BY(mutex_) = false;
  bool isShort_ HX_GUARDED_BY(mutex_) = false;  // of threads, which was told
};

}  // namespace mw::local
