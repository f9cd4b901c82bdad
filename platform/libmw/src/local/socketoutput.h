#pragma once

#include "../remote/budget.h"
#include "../remote/channel.h"

#include <hxerror/mutex.h>
#include <libmw/local.h>

#include <atomic>
#include <deque>

namespace mw::local {

/// What leaves by a socket, in its order: written by whoever sends. What the socket does not take, and what waits for
/// others to leave with, waits here; short messages lie together, and a long value stays where it is.
///
/// @par Threads  Any. Nothing waits. Its lock is inner to all but that of the budget.
class SocketOutput {
 public:
  /// What the channel is to see to, with no lock held.
  struct Outcome {
    bool holds = false;     ///< Something waits for others, where nothing did: it is to be flushed before long.
    bool isMarked = false;  ///< `isBlocked` says something else.
    bool isTooMuch = false;
    int error = 0;  ///< Of the system, when the connection is broken.
  };

  /// @param socket  Outlives this.
  SocketOutput(int socket, const LinkOptions& options);

  Outcome send(remote::Message& message, remote::Sending when);
  /// Sends as much as the system takes now.
  Outcome flush();
  /// Sends what waited for others; drops what the socket does not take, and what comes afterwards.
  void end();

  /// Whether something waits until the peer has read.
  bool isBlocked() const { return isBlocked_; }
  /// Of all connections, of which this is one from now on.
  remote::Budget::Share& share() { return share_; }

 private:
  Outcome write() HX_REQUIRES(mutex_);
  bool writeSome(int& error) HX_REQUIRES(mutex_);
  void queue(remote::Message& message) HX_REQUIRES(mutex_);
  void close() HX_REQUIRES(mutex_);
  void setSize(std::size_t bytes) HX_REQUIRES(mutex_);

  const int socket_;
  const std::size_t limit_;
  std::atomic<bool> isBlocked_{false};  // written under the lock
  remote::Budget::Share share_;         // as much as `size_`

  HX::Mutex mutex_;
  bool isClosed_ HX_GUARDED_BY(mutex_) = false;
  bool holds_ HX_GUARDED_BY(mutex_) = false;                    // what waits for others
  std::deque<remote::Message> messages_ HX_GUARDED_BY(mutex_);  // short ones together
  remote::Bytes spare_ HX_GUARDED_BY(mutex_);                   // memory for short ones
  std::size_t size_ HX_GUARDED_BY(mutex_) = 0;
  std::size_t sent_ HX_GUARDED_BY(mutex_) = 0;  // of the first of them
};

}  // namespace mw::local
