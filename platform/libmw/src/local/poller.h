#pragma once

#include "../remote/channel.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <thread>
#include <unordered_map>
#include <vector>

namespace mw::local {

/// A file of the system, closed when it goes.
class File {
 public:
  File() = default;
  explicit File(int number) noexcept : number_(number) {}
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
  /// The socket is ready. Must not wait.
  /// @param events  As poll(2) says them.
  /// @param works   Takes what is to be done for what came.
  virtual void onReady(std::uint32_t events, std::vector<remote::Work>& works) = 0;
  /// Does what was left for later, and was told of by `Poller::lookAfterSockets`: some milliseconds have passed. Must
  /// not wait.
  virtual void lookAfter() {}
};

/// Watches the sockets of the process.
///
/// One thread at a time leads: it waits for all sockets, reads what came, and does itself what has to be done for it,
/// so that a call costs no hand-over between threads. As long as it does so nobody watches; therefore it hands the lead
/// on as soon as it is about to wait for a future, and a monitor takes the lead away from it when a call lasts. So a
/// call that blocks, for whatever reason, keeps the others waiting for some milliseconds, once.
///
/// Asio's reactor is not used for this: it hands the lead on before each event is handled, which wakes a thread for
/// every call.
///
/// @par Threads  Any. The threads are started with the first socket; there are as many as calls block at a time, and
///   one more, up to `kMostThreads`.
class Poller {
 public:
  /// The one of the process.
  static Poller& instance();

  /// Begins to watch `socket`, for nothing yet.
  /// @return The number to name it by. @throws std::system_error
  std::uint64_t add(int socket, const std::weak_ptr<Pollable>& owner);
  /// Watches for `events` from now on, as long as they hold. The end of the peer is always among them.
  void watch(std::uint64_t number, int socket, std::uint32_t events);
  /// Ends the watching. `onReady` may still be running.
  void remove(std::uint64_t number, int socket);

  /// How soon a socket wants to be asked.
  enum class Wish : bool {
    Sometime,  ///< Within five milliseconds.
    Soon,      ///< Within two.
  };
  /// Has sockets asked to look after themselves, and again two milliseconds later.
  /// @return False when they will not be: the process ends, or has no thread for it.
  bool lookAfterSockets(Wish wish);

  /// Tells that the calling thread is about to wait: if it leads, it hands the lead on.
  static void aboutToWait();

  static constexpr std::size_t kMostThreads = 128;

  Poller(const Poller&) = delete;
  Poller& operator=(const Poller&) = delete;

 private:
  using Clock = std::chrono::steady_clock;
  class AtExit;

  Poller();
  void runThread();
  void lead(std::uint64_t term);
  void work(std::vector<remote::Work>& works);
  bool handOn(std::uint64_t term);
  void startThreadLocked();
  bool lookAfter();
  void monitor();
  void askSockets();
  void stop();
  std::shared_ptr<Pollable> find(std::uint64_t number) const;

  const File epoll_;
  const File wakeUp_;

  std::atomic<std::uint64_t> term_{0};     // of the present leader; each has one of its own
  std::atomic<std::uint64_t> works_{0};    // begun by leaders
  std::atomic<std::uint64_t> working_{0};  // the term of the leader that is in one
  std::atomic<bool> monitored_{false};     // the monitor looks
  std::atomic<std::uint64_t> wishes_{0};   // that sockets be asked, so far
  std::atomic<bool> calm_{false};          // the monitor sleeps longer, unless it is woken up

  mutable std::mutex socketsMutex_;  // Guards the two below.
  std::uint64_t lastNumber_ = 0;
  std::unordered_map<std::uint64_t, std::weak_ptr<Pollable>> sockets_;

  std::mutex mutex_;  // Guards everything below.
  std::condition_variable changed_;
  std::condition_variable monitorWanted_;
  bool hasLeader_ = false;
  std::atomic<bool> stopped_{false};  // written with the mutex held
  bool excessReported_ = false;
  std::size_t threads_ = 0;
  std::size_t spare_ = 0;
  std::size_t monitors_ = 0;
};

}  // namespace mw::local
