#pragma once

#include "sensors.h"

#include <hxcommon/subscribers.h>
#include <hxproxies/hxmemoryproxy.h>

#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace telemetry {

/// Puts readings into one memory.
///
/// Every reading is stored as data under "Host/<name>". Those that move from sample to sample (ratios, rates,
/// temperatures) are also raised as the event "Host/Sampled/<name>", but only while somebody is subscribed to it.
///
/// @par Threads  Not safe: one thread at a time.
class Publisher {
 public:
  /// What the names of its events begin with.
  static constexpr std::string_view kEventPrefix = "Host/Sampled/";

  /// @param subscribers  Of the extractor: where the events are declared. Must outlive this object.
  Publisher(HX::HXMemoryProxy memory, HX::Subscribers& subscribers);

  /// Stores what was read, all in one call, then raises the events that are wanted. Keys that are new are described,
  /// and their events declared.
  ///
  /// Subscribers run inside this call. One of them that fails does not keep the others from being told.
  ///
  /// @throws What the memory throws; what a subscriber throws, the first one's, once all have been told.
  void publish(const std::vector<Reading>& readings);

 private:
  void introduce(const Reading& reading);
  void raise(const std::vector<Reading>& readings);

  HX::HXMemoryProxy memory_;
  HX::Subscribers& subscribers_;
  std::set<std::string> introduced_;  // Names of readings.
};

}  // namespace telemetry
