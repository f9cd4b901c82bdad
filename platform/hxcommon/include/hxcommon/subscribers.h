#pragma once

#include <hxauthor/author.h>
#include <hxerror/api.h>
#include <hxerror/mutex.h>
#include <libmw/genericobject.h>
#include <libmw/session.h>
#include <libmw/trackable.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace HX {

/// Who wants which events of an extractor: a module that produces events only while somebody is subscribed to them.
///
///     Thermometer(broker, name) : HXModule(broker, name), subscribers_(broker->session(), name) { … }
///     void init() override { subscribers_.declare("Thermometer/Temperature"); }
///     void subscribe(const std::string& subscriberId) { subscribers_.add(subscriberId); }
///     void unsubscribe(const std::string& subscriberId) { subscribers_.remove(subscriberId); }
///     void measure(double celsius) { if (subscribers_.want("Thermometer/Temperature")) … }
///
/// The memory keeps no count, and tells an extractor only of those who come and go by themselves. This object also
/// forgets the subscribers whose service is gone, in this process or in another one that ended or was killed. And it
/// follows the memory: one that comes, or comes again, has the events declared to it, and tells who is subscribed
/// already; subscribers of a memory that has gone went with it.
///
/// What it writes, and what the extractor writes while it is told, the extractor has written.
///
/// A module that subscribes again replaces its subscription, and one unsubscription ends it. So it counts once,
/// however often it came. A subscription is named by the subscriber's name with the event's name behind it and nothing
/// between; where several declared events end such a name, the longest is meant.
///
/// @par Threads  Any, in parallel. Notices of services come on the event loop; the destructor waits for those that run.
/// @par Locks    One of its own, held while nothing else is called.
class HX_API Subscribers {
 public:
  /// Told true when the first subscriber of an event has come, and false when the last one has gone. Calls never
  /// overlap, and the last one tells how things stand; where many come and go at once, some may pass unmentioned. It
  /// runs on a thread that brought the change about: inside `add`, `remove` or `declare`, or on the event loop. It may
  /// use this object. What it throws is logged (category "hxcommon.subscribers").
  using OnWanted = std::function<void(const std::string& event, bool isWanted)>;

  /// @param session    Of the extractor's broker: looks the memory up, and tells of services that come and go.
  /// @param extractor  Name of the extractor, as the memory is to call it.
  /// @param onWanted   Told of the first and the last subscriber; may be empty.
  Subscribers(std::shared_ptr<mw::Session> session, std::string extractor, OnWanted onWanted = {});
  Subscribers(const Subscribers&) = delete;
  Subscribers& operator=(const Subscribers&) = delete;
  ~Subscribers();

  /// Declares an event of the extractor to the memory, and counts those who are subscribed to it already. Where there
  /// is no memory, or it is asked for longer than a second, this is done once there is one. Called when the extractor
  /// can be called, from `init` on. Declared again to the same memory, an event is left alone.
  /// @throws What the memory throws.
  void declare(const std::string& event);

  /// What an extractor's method "subscribe" does.
  /// @param identifier  As the memory gave it. Ignored when it names no declared event.
  void add(std::string_view identifier);
  /// What an extractor's method "unsubscribe" does.
  /// @param identifier  As for `add`. Ignored when it is unknown: its subscriber may have been forgotten before.
  void remove(std::string_view identifier);

  /// Whether anybody is subscribed to `event`.
  bool want(std::string_view event) const;
  /// The modules that are subscribed to `event`, in ascending order.
  std::vector<std::string> of(std::string_view event) const;

 private:
  struct Event {
    std::map<std::string, std::uint64_t, std::less<>> modules;  ///< Each with the number of its latest arrival.
    bool isDeclared = false;                                    ///< To `memory_`.
    bool isToldWanted = false;
  };
  using Events = std::map<std::string, Event, std::less<>>;

  /// An event and the subscriber's name before it in an identifier.
  struct Named {
    Event* event = nullptr;
    std::string_view module;
  };

  mw::AnyObject findMemory() const;
  void declareTo(const mw::AnyObject& memory, const std::string& event);
  void onRegistered(const std::string& service);
  void onUnregistered(const std::string& service);
  void onMemoryGone();
  void onModuleGone(const std::string& module);
  bool isThere(const std::string& service) const;
  void tell();
  void call(const std::string& event, bool isWanted) const;
  Named named(std::string_view identifier) HX_REQUIRES(mutex_);
  mw::AnyObject startAnew(mw::AnyObject memory) HX_REQUIRES(mutex_);

  const std::shared_ptr<mw::Session> session_;
  const std::string extractor_;
  const Author author_;  // The extractor.
  const OnWanted onWanted_;
  mw::SignalLink registeredLink_ = mw::kInvalidSignalLink;
  mw::SignalLink unregisteredLink_ = mw::kInvalidSignalLink;

  mutable Mutex mutex_;
  Events events_ HX_GUARDED_BY(mutex_);
  // To which events are declared. Held, so that a later one is a different handle.
  mw::AnyObject memory_ HX_GUARDED_BY(mutex_);
  std::uint64_t arrivals_ HX_GUARDED_BY(mutex_) = 0;  // So far.
  // A thread is inside `tell`, and tells what the others change as well.
  bool isTelling_ HX_GUARDED_BY(mutex_) = false;

  mw::Lifetime lifetime_;
};

}  // namespace HX
