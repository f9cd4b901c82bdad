#pragma once

#include "publisher.h"
#include "sensors.h"

#include <hxcommon/hxmodule.h>
#include <hxcommon/subscribers.h>
#include <libmw/genericobject.h>
#include <libmw/session.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

namespace telemetry {

/// This machine's sensors in the memory.
///
/// Samples at a period on a thread of its own, and publishes as `Publisher` says: everything as data, "Host/<name>";
/// what moves also as events "Host/Sampled/<name>", each of them only while somebody is subscribed to it.
///
/// As long as there is no memory it tries again with every sample, and logs that once. A memory that comes, or comes
/// again, gets everything anew.
///
/// The period is what the setting `period` says, 1 second by default, until it is set.
///
/// @par Threads  Methods may be called from any thread. Subscribers are called on the sampling thread, so one that
/// takes
///   its time delays the next sample.
class HostTelemetry : public HX::HXModule {
 public:
  static constexpr std::chrono::milliseconds kShortestPeriod{10};
  static constexpr std::chrono::milliseconds kLongestPeriod{3'600'000};

  /// @param sensors  Where readings come from.
  HostTelemetry(const std::shared_ptr<HX::HXBroker>& broker, const std::string& name, Sensors sensors = Sensors());
  ~HostTelemetry() override;

  void init() override;
  void exit() override;

  /// @throws HXError when it is out of range.
  void setPeriod(int milliseconds);
  int getPeriod() const;
  float getCurrentPrecision() const;
  void subscribe(const std::string& subscriberId);
  void unsubscribe(const std::string& subscriberId);

 private:
  using Clock = Sensors::Clock;

  void bindMethods();
  void run(const std::stop_token& stop, Clock::time_point sampled);
  void publish(Clock::time_point now);
  Publisher& publisher();
  void report(const std::string& failure);
  void waitForNextSample(const std::stop_token& stop, Clock::time_point sampled);
  void stopSampling();

  // The session and not the broker is asked for the memory: were the sampling thread the last to hold the broker, it
  // would shut the broker down, and so wait for its own end.
  const std::shared_ptr<mw::Session> session_;
  HX::Subscribers subscribers_;

  mutable std::mutex mutex_;  // Guards `period_`.
  std::condition_variable_any periodChanged_;
  std::chrono::milliseconds period_{};

  // Used by the sampling thread only.
  Sensors sensors_;
  mw::AnyObject memory_;  // What `publisher_` was made for. Held, so that a later one is a different object.
  std::optional<Publisher> publisher_;
  std::string failure_;  // What was logged last; empty when the last sample went well.

  std::jthread thread_;
};

}  // namespace telemetry
