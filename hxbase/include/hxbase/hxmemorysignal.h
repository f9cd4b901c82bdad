#pragma once

#include <hxvalue/hxvalue.h>
#include <libmw/anyvalue.h>
#include <libmw/signal.h>

#include <memory>
#include <string>

namespace HX {

class HXMemory;

/// The signal of one event: emits every value that the event is raised with, and raises the event when it is triggered
/// from outside.
///
/// A value triggered from outside is not emitted here. It is raised, and comes back by way of the memory, so that every
/// client sees it once, whichever way it came.
///
/// A signal may outlive the memory; it then refuses to trigger.
///
/// @par Threads  Any, in parallel.
/// @par Locks    None of its own is held.
class HXMemorySignal : public mw::Signal<mw::AnyValue> {
 public:
  /// Stands for no event; a trigger is refused.
  HXMemorySignal();
  /// @param memory     The memory whose event is raised; not owned. It may go first.
  /// @param eventName  Copied.
  HXMemorySignal(HXMemory* memory, const std::string& eventName);
  ~HXMemorySignal() override;

  /// Raises the event with the one argument, or with an invalid value when there is none.
  /// @param parameters  None or one; not kept.
  /// @param callType    Ignored.
  /// @throws std::runtime_error "Invalid number of arguments" for two or more, mw::ConversionError for an argument that
  ///         has no value form, std::runtime_error when the memory has gone, and whatever the raise throws.
  void trigger(mw::GenericFunctionParameters parameters, mw::MetaCallType callType = mw::MetaCallType::Auto) override;

  /// Emits `value` to the connected clients without raising anything. Runs on the raising thread.
  void bounceEvent(const HXValue& value);

  /// Empty for a signal that stands for no event.
  const std::string& eventName() const { return *eventName_; }
  /// The same, to be kept when the signal goes. Never null.
  const std::shared_ptr<const std::string>& sharedEventName() const { return eventName_; }
  /// Ends with the memory, which waits for who has entered; refuses where there is none.
  const mw::Lifetime::Token& memoryLifetime() const { return memoryLifetime_; }

 private:
  HXMemory* memory_ = nullptr;
  std::shared_ptr<const std::string> eventName_;
  mw::Lifetime::Token memoryLifetime_;
};

/// What clients are handed to follow an event: an object with the one signal "signal". Calls on it may come from any
/// thread and in parallel.
struct HXMemorySubscriber {
  HXMemorySubscriber() = default;
  HXMemorySubscriber(HXMemory* memory, const std::string& eventName) : signal(memory, eventName) {}

  HXMemorySignal signal;
};

}  // namespace HX
