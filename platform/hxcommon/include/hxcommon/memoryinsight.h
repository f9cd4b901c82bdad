#pragma once

#include <hxerror/api.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace HX {

/// What is known of the memory and changes no key, so that no feed tells it: who is subscribed, who is being called,
/// who waits, what extractors were asked for. To be read only, by modules of the same process:
/// `broker->interfaceOf<MemoryInsight>("HXMemory")`.
///
/// @par Threads  Any. Nothing here waits for a subscriber, a service or a mapping, also for one that hangs. Each answer
/// is true of one moment, and two of them need not be of the same.
class HX_API MemoryInsight {
 public:
  using Duration = std::chrono::nanoseconds;
  using TimePoint = std::chrono::time_point<std::chrono::system_clock, Duration>;

  /// Calls by how long they took.
  struct CallTimes {
    /// Upper ones, ascending; a last count is for what took longer.
    static constexpr std::array<Duration, 7> kBounds{std::chrono::microseconds(10),  std::chrono::microseconds(100),
                                                     std::chrono::milliseconds(1),   std::chrono::milliseconds(10),
                                                     std::chrono::milliseconds(100), std::chrono::seconds(1),
                                                     std::chrono::seconds(10)};
    std::array<std::uint64_t, kBounds.size() + 1> counts{};
    std::uint64_t nanoseconds = 0;  ///< In all.
  };
  struct Subscriber {
    std::string module;
    std::string method;
    TimePoint since;
    bool isThere = false;  ///< Its service is known to the broker.
    std::string process;   ///< As `mw::processOf`.
    /// How long it took at the last raise. Where calls take less than a few microseconds, now and then one is timed.
    /// Empty before the first.
    std::optional<Duration> lastCall;
    CallTimes calls;  ///< Since it subscribed; those that were not timed count as the one that was timed after them.
  };
  /// A subscriber that is being called now.
  struct Call {
    std::string event;
    std::string subscriber;
    Duration lasts{};  ///< At least.
  };
  /// A raise that waits for another one of the same event, or a subscription that does.
  struct Wait {
    std::string event;
    std::string who;      ///< The subscriber on whose thread it is, otherwise the author; empty for neither.
    std::string forWhom;  ///< The subscriber that is being called meanwhile; empty between two of them.
    Duration lasts{};
  };
  /// An extractor that was asked to produce an event for somebody, and not yet to stop.
  struct Demand {
    std::string extractor;
    std::string event;
    std::string subscriber;
    TimePoint since;
    std::string failure;        ///< Why it could not be asked; empty when it was.
    bool isSubscribed = false;  ///< Still. Otherwise it produces for nobody, unless it has noticed by itself.
  };
  struct Mapping {
    std::string service;
    std::string signal;
    std::string event;
  };
  /// A subscription that has ended although nobody unsubscribed.
  struct Dropped {
    std::string event;
    std::string module;
    std::string why;
    TimePoint when;
  };

  virtual ~MemoryInsight();

  /// @param key  Whose subscribers.
  /// @return In the order of their names.
  virtual std::vector<Subscriber> subscribersOf(const std::string& key) const = 0;
  /// Calls `use(key, subscribers)` for each key that has some, with nothing locked.
  /// @param use  May use the memory.
  virtual void forEachSubscribed(
      const std::function<void(const std::string& key, const std::vector<Subscriber>& subscribers)>& use) const = 0;
  virtual std::vector<Call> calls() const = 0;
  virtual std::vector<Wait> waits() const = 0;
  /// @param key  An event.
  /// @return Who generates it; empty for nobody.
  virtual std::string extractorNameOf(const std::string& key) const = 0;
  /// The events that have an extractor, with that.
  virtual std::vector<std::pair<std::string, std::string>> extractedEvents() const = 0;
  /// The latest 4096 at most, in the order of extractors and events.
  virtual std::vector<Demand> demands() const = 0;
  /// In the order of services and signals, also of services that are not there.
  virtual std::vector<Mapping> mappings() const = 0;
  /// The latest 100, oldest first.
  virtual std::vector<Dropped> dropped() const = 0;
};

}  // namespace HX
