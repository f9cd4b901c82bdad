#pragma once

#include "payload.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace HX::fleet {

/// A key under the names that the fleet has for it.
struct KeyName {
  std::string key;
  std::string subject;  ///< As `toSubject` gives it.
};
using KeyNamePointer = std::shared_ptr<const KeyName>;

/// For tables that are asked by a part of a text.
struct NameHash {
  using is_transparent = void;
  std::size_t operator()(std::string_view name) const noexcept { return std::hash<std::string_view>()(name); }
};

/// An event on its way.
struct Event {
  using Clock = std::chrono::steady_clock;
  const KeyName* key = nullptr;  ///< Outlives it: counting its users would have two threads write what is read alone.
  std::uint64_t n = 0;           ///< As `Record::n`.
  std::string payload;
  Clock::time_point raised;
  std::uint64_t id = 0;  ///< Given by the outbox: rises, from the outbox's first one on.
};
using EventPointer = std::shared_ptr<const Event>;

/// What has become of the raises that were told to an outbox. Each is in exactly one of the five.
struct Account {
  std::uint64_t raised = 0;
  std::uint64_t confirmed = 0;
  std::uint64_t queued = 0;
  std::uint64_t inFlight = 0;
  std::uint64_t dropped = 0;  ///< Gave way to later ones.
  std::uint64_t missed = 0;   ///< Grew too old, were never told, or were refused by the server.

  bool isBalanced() const { return raised == confirmed + queued + inFlight + dropped + missed; }
  Account& operator+=(const Account& other);
};

/// Events between the robot that raises them and the hub that confirms them: bounded, and accounted for one by one.
///
/// What has been in flight once is never dropped, since it may have arrived: it is sent again, before all others, until
/// it is confirmed. So there can be `Bounds::inFlight` events more than the queue holds.
///
/// @par Threads  One at a time.
class Outbox {
 public:
  struct Bounds {
    std::size_t events = 20'000;
    std::size_t bytes = std::size_t{16} << 20U;  ///< Of payloads.
    std::size_t inFlight = 4096;
  };
  using TimePoint = Event::Clock::time_point;

  /// @param firstId  Of the first event; others in the same store must not have had it.
  explicit Outbox(Bounds bounds, std::uint64_t firstId = 1);

  /// Takes a raise in. Beyond the bounds the oldest that never left goes.
  /// @param event  Its id is given here.
  void push(std::shared_ptr<Event> event);
  /// The server has refused one that was sent to be confirmed with all others: nobody has it.
  void refuse() { ++refused_; }
  /// Counts raises whose events nobody has.
  void addMissed(std::uint64_t count);

  /// What is to be sent now, the oldest first: in flight from now on.
  /// @param most  So many at most; never more than the bound of what is in flight leaves room for.
  std::vector<EventPointer> take(std::size_t most);
  /// @return False for what is not in flight: it was confirmed before.
  bool confirm(std::uint64_t id);
  void confirmAll();
  /// Whether all that was sent before this one, which is in flight or was, is confirmed.
  bool isOldest(std::uint64_t id) const { return inFlight_.empty() || inFlight_.front()->id >= id; }
  /// Nobody knows whether what is in flight arrived: all of it is to be sent again.
  void giveBack();
  /// Events raised before `time` are not sent any more.
  void missOlder(TimePoint time);

  bool isEmpty() const { return queued() == 0 && inFlight() == 0; }
  std::size_t queued() const { return queue_.size() + again_.size(); }
  std::size_t inFlight() const { return inFlight_.size() - confirmedAmong_; }
  Account account() const;

  /// What was dropped since it was asked last, by keys.
  std::vector<Dropped> takeDropped();
  /// That could not be told: it is asked for again.
  void returnDropped(const std::vector<Dropped>& told);

 private:
  struct InFlight {
    EventPointer event;
    bool isConfirmed = false;
    const Event* operator->() const { return event.get(); }
  };
  void drop();
  void forgetFlight();
  void note(const Dropped& dropped);
  static std::size_t missOlder(std::deque<EventPointer>& events, TimePoint time);

  const Bounds bounds_;
  std::uint64_t nextId_;
  std::deque<EventPointer> queue_;  // Never sent.
  std::deque<EventPointer> again_;  // Sent, and nobody knows.
  // By ids, since what is in flight is always taken behind what is; confirmed ones stay, marked, behind one that is
  // not.
  std::deque<InFlight> inFlight_;
  std::size_t confirmedAmong_ = 0;
  std::size_t bytes_ = 0;  // Of `queue_`.
  Account account_;        // But for what is counted by the containers, and for those refused, which count as arrived.
  std::uint64_t refused_ = 0;
  std::map<std::string, Dropped> dropped_;
};

}  // namespace HX::fleet
