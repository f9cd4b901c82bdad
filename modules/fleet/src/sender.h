#pragma once

#include "connection.h"
#include "names.h"
#include "outgoing.h"

#include <hxerror/mutex.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <thread>

namespace HX::fleet {

/// Sends what a robot has for the hub, on a thread of its own and a connection of its own.
///
/// Live events count as confirmed once the server answers what was sent behind them. Kept events and values count once
/// the store has acknowledged each. When that stays out for two seconds, or the store says that it is not there, the
/// way to it is cut: then nothing goes but the oldest event, or one value, each second; once that is acknowledged the
/// rest follows, in order. So it begins on each connection, too. To send on meanwhile would repeat thousands, and out
/// of order.
///
/// On a slow line it sends less at once: what the server's signs of life have to queue behind would otherwise pass for
/// a server that has frozen.
///
/// @par Threads  Any.
class Sender {
 public:
  /// @param outgoing  Must outlive this object.
  Sender(Outgoing& outgoing, FleetSubjects subjects, std::string robot);
  Sender(const Sender&) = delete;
  Sender& operator=(const Sender&) = delete;
  ~Sender();

  /// Sends by this connection from now on; by none when it is null. Closes the one before.
  void use(std::shared_ptr<Connection> connection);
  /// Why the store is cut off; empty when it is not.
  std::string cut() const;
  /// The store has answered somebody else. When nothing is to be sent by which that could be found out, it counts.
  void noteStore();

 private:
  using Clock = std::chrono::steady_clock;

  void run(const std::stop_token& stop);
  void serve(Connection& connection, const std::stop_token& stop);
  bool work(Connection& connection);
  std::size_t storable(Clock::time_point now, bool awaits);
  void send(Connection& connection, Outgoing::Work work);
  void awaitArrival(Connection& connection);
  void listen(Connection& connection);
  void onEventAnswer(const Message& message);
  void onValueAnswer(const Message& message);
  void becomeCut(const std::string& why);
  void noteAnswer();
  bool isCut() const { return !cut().empty(); }
  static std::uint64_t numberOf(std::string_view subject);

  Outgoing& outgoing_;
  const FleetSubjects subjects_;
  const std::string robot_;

  mutable Mutex mutex_;
  std::condition_variable_any given_;
  std::shared_ptr<Connection> connection_ HX_GUARDED_BY(mutex_);
  std::string cut_ HX_GUARDED_BY(mutex_);
  Clock::time_point lastAnswer_ HX_GUARDED_BY(mutex_);  // Of the store; or when it was asked first after having been.
  Clock::time_point nextProbe_;                         // Of the thread alone, as are the two below.
  bool awaitsStore_ = false;
  std::atomic<bool> isProven_{false};  // The store has acknowledged something that came by this connection.
  std::uint64_t highest_ = 0;          // Of the numbers that the bucket has given; of the library's thread.
  std::size_t window_;                 // So much is sent at once; of the thread.
  std::jthread thread_;
};

}  // namespace HX::fleet
