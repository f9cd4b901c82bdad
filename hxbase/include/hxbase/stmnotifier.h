#pragma once

#include <hxcommon/hxproxy.h>
#include <hxcommon/memoryinsight.h>
#include <hxvalue/hxvalue.h>
#include <libmw/clock.h>

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

namespace HX {

/// One subscription: who is called when an item is raised, by which method, with which message.
///
/// A plain record without a lock of its own; the item that it belongs to guards it.
struct STMNotifier {
  STMNotifier() = default;
  STMNotifier(std::string module, HXValue message, std::string method)
      : callbackModule(std::move(module)), callbackMessage(std::move(message)), callbackMethod(std::move(method)) {}

  /// Names the subscriber anew. The key is accepted for callers that state it; the record does not keep it.
  void addSubscriber(const std::string& /*key*/, std::string module, HXValue message, std::string method) {
    callbackModule = std::move(module);
    callbackMessage = std::move(message);
    callbackMethod = std::move(method);
  }

  static constexpr std::int64_t kNeverCalled = -1;

  std::string callbackModule;
  HXValue callbackMessage;  ///< Handed back with every notification; an empty string when none was given.
  std::string callbackMethod;
  std::shared_ptr<HXProxy> proxy;  ///< Empty until the first notification has found the module.
  HXProxy::CallState notifyCallState{0, 0};
  mw::SystemTimePoint since = mw::systemNow();
  std::int64_t lastCall = kNeverCalled;  ///< Nanoseconds. Read and written as an atomic.
  /// How many calls took how long, and nanoseconds in all. Read and written as atomics.
  MemoryInsight::CallTimes callTimes;
  std::uint8_t timedCalls = 0;    ///< Up to some number.
  std::uint8_t untimedCalls = 0;  ///< To come before the next that is timed.
  std::uint8_t callsATime = 1;    ///< So many calls the next that is timed stands for.
};

}  // namespace HX
