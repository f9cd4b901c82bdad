#pragma once

#include <hxproxies/hxfreshnessproxy.h>
#include <libmw/clock.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace HX {

/// Which keys are expected to be written how often, when they were, and which are overdue. A clockwork without a clock:
/// whoever uses it says what time it is, and asks when to come again.
///
/// @par Threads  One at a time.
class Expectations {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;
  using Duration = std::chrono::nanoseconds;

  using Standing = HXFreshnessProxy::Standing;

  /// Expects a key, or changes its limit.
  /// @return How it stood before, where it was overdue and is not any more by the new limit.
  std::optional<Standing> expect(const std::string& key, Duration limit, TimePoint now);
  /// @return False when it was not expected.
  bool forget(std::string_view key);

  /// A key was written.
  /// @param at    When, by the clock that the deadlines go by.
  /// @param time  When, by the memory: its name for this write.
  /// @return How it stood at that moment, where it was overdue until then.
  std::optional<Standing> write(std::string_view key, TimePoint at, mw::SystemTimePoint time);
  /// Whether the latest write that is known of is this one.
  bool knows(std::string_view key, mw::SystemTimePoint time) const;

  /// When a limit will have passed next, for all that is known; none when no key is waited for.
  std::optional<TimePoint> next() const;
  /// The keys whose limit has passed. They are waited for no longer: each is to be written, or declared overdue.
  std::vector<std::string> takeDue(TimePoint now);
  /// A key that `takeDue` gave is overdue, unless it was written, forgotten or expected anew since.
  std::optional<Standing> declareOverdue(std::string_view key, TimePoint now);

  /// How all of them stand, sorted by key.
  std::vector<Standing> all(TimePoint now) const;
  std::vector<std::string> keys() const;
  bool isEmpty() const { return entries_.empty(); }

 private:
  using Waiting = std::multimap<TimePoint, std::string>;
  struct Entry {
    Duration limit{};
    TimePoint last;                           // The write, or the beginning of the expectation.
    std::optional<mw::SystemTimePoint> time;  // Of that write; none before the first.
    bool isOverdue = false;
    std::optional<Waiting::iterator> waits;
  };
  using Entries = std::map<std::string, Entry, std::less<>>;

  static Standing standing(const Entries::value_type& entry, TimePoint now);
  void wait(Entries::value_type& entry);
  void stopWaiting(Entry& entry);

  Entries entries_;
  /// By when each is looked at. That may be earlier than its limit passes: a write does not move it, so that a key that
  /// is written a thousand times a second costs a look for each limit and not for each write.
  Waiting waiting_;
};

}  // namespace HX
